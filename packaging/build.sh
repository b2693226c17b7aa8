#!/usr/bin/env bash
# build.sh FOLDER [ARGUMENTS]: builds the source and binary packages of what lies here into FOLDER, with these arguments
# of dpkg-buildpackage.
set -euo pipefail
cd "$(dirname "$0")/.."
. packaging/tree.sh
mkdir -p "$1"
folder=$(cd "$1" && pwd)
shift

tree=$folder/libgolt-$(dpkg-parsechangelog -S Version)
rm -rf "$tree"
export_tree "$tree"
# Its modes and times tell nothing of who checked it out, and when.
chmod -R u=rwX,go=rX "$tree"
find "$tree" -exec touch --no-dereference --date="@$(dpkg-parsechangelog -S Timestamp)" {} +

cd "$tree"
dpkg-buildpackage --jobs=auto --unsigned-source --unsigned-changes "$@"
rm -rf "$tree"
