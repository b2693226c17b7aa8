#!/usr/bin/env bash
# reproducible.sh FOLDER: builds the packages in FOLDER once more: elsewhere, by another user, more than a year later, in
# another time zone and language, with a launcher of compilers that would fail. They have to have the same bytes. As root.
set -euo pipefail
built=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
. packaging/tree.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
home="$work/another folder"

mkdir "$work/locales" "$home"
localedef -i tr_TR -f UTF-8 "$work/locales/tr_TR.UTF-8"
umask 077
export_tree "$home/sources"
git init --quiet "$home/sources"
chown -R nobody "$home"
setpriv --reuid=nobody --regid=nogroup --clear-groups env -i PATH="$PATH" HOME="$home" USER=nobody \
    TZ=Pacific/Kiritimati LOCPATH="$work/locales" LC_ALL=tr_TR.UTF-8 DEB_BUILD_OPTIONS=nocheck \
    CMAKE_C_COMPILER_LAUNCHER=false CMAKE_CXX_COMPILER_LAUNCHER=false \
    faketime -f +400d "$home/sources/packaging/build.sh" "$home/packages" >"$work/log" 2>&1 || {
    tail -n 60 "$work/log" >&2
    exit 1
}

status=0 count=0
for package in "$built"/*.deb "$built"/*.dsc "$built"/*.tar.*; do
    cmp "$package" "$home/packages/$(basename "$package")" || status=1
    count=$((count + 1))
done
[ $status -ne 0 ] || echo "Built again elsewhere, all $count files are the same."
exit $status
