#!/usr/bin/env bash
# build.sh FOLDER [ARGUMENTS]: builds the source and binary packages of what lies here into FOLDER, with these arguments
# of dpkg-buildpackage.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p "$1"
folder=$(cd "$1" && pwd)
shift

version=$(dpkg-parsechangelog -S Version)
tree=$folder/libgolt-$version

# What git has and what isn't ignored, as it is now. Its modes and times tell nothing of who checked it out, and when.
rm -rf "$tree"
mkdir "$tree"
git ls-files -z --cached --others --exclude-standard --deduplicate |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar --create --null --files-from=- | tar --extract --directory="$tree"
chmod -R u=rwX,go=rX "$tree"
find "$tree" -exec touch --no-dereference --date="@$(dpkg-parsechangelog -S Timestamp)" {} +

cd "$tree"
dpkg-buildpackage --jobs --unsigned-source --unsigned-changes "$@"
rm -rf "$tree"
