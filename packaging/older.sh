#!/usr/bin/env bash
# older.sh FOLDER PACKAGE...: packs the packages again, into FOLDER, as the version before. It has a file more.
set -euo pipefail
folder=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for package in "$@"; do
    name=$(dpkg-deb -f "$package" Package)
    version=$(dpkg-deb -f "$package" Version)
    dpkg-deb -R "$package" "$work/$name"
    sed -i "s/\b$version\(\$\|)\)/$version~before\1/" "$work/$name/DEBIAN/control"
    # Not among the documents, which small systems leave out.
    mkdir -p "$work/$name/usr/share/$name"
    echo "gone with the next version" >"$work/$name/usr/share/$name/before"
    dpkg-deb --root-owner-group -Zgzip -b "$work/$name" "$folder/$(basename "$package")" >/dev/null
done
