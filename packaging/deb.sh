#!/usr/bin/env bash
# deb.sh [ARCHITECTURE]: builds the packages into build/deb or, as root, build/deb-ARCHITECTURE, and looks at them. The
# sizes go to the standard output.
set -euo pipefail
cd "$(dirname "$0")/.."
. packaging/chroot.sh
folder=build/deb${1:+-$1}

[ $# -eq 0 ] || expect_root "deb $1"
rm -rf "$folder"
if [ $# -eq 0 ]; then
    packaging/build.sh "$folder" >&2
else
    packaging/build.sh "$folder" --build=source >&2
    packaging/cross.sh "$1" "$folder" >&2
fi

lintian --allow-root --fail-on error,warning "$folder"/*.changes >&2
echo "lintian: no errors, no warnings" >&2
for package in "$folder"/*.deb; do
    printf '%8d bytes, %5d KB installed: %s\n' "$(stat -c %s "$package")" \
        "$(dpkg-deb -f "$package" Installed-Size)" "$(basename "$package")"
done
