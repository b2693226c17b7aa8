#!/usr/bin/env bash
# test.sh FOLDER ARCHITECTURE: installs the packages in FOLDER in a Debian of its own, upgrades and removes them, and runs
# the cases of debian/tests there. Another processor is emulated. As root.
set -euo pipefail
folder=$(cd "$1" && pwd)
architecture=$2
cd "$(dirname "$0")"
. ./chroot.sh
. ./emulation.sh

root=$(mktemp -d)
finish() {
    stop_emulation
    rm -rf --one-file-system "$root"
}
trap finish EXIT

if [ "$architecture" != "$(dpkg --print-architecture)" ] && ! start_emulation "$architecture"; then
    say "The kernel can't start programs of $architecture by itself (binfmt_misc)."
    run_unpacked "$folder" "$architecture" "$root"
    exit
fi

say "Debian for $architecture"
make_chroot "$root" "$architecture"
mkdir -p "$root"/packages/{older,newer}
for name in golt libgolt0.8 libgolt-dev; do cp "$folder/${name}"_*_"$architecture.deb" "$root/packages/newer"; done
./older.sh "$root/packages/older" "$root"/packages/newer/*
cp installation.sh "$root/packages"
say "Installation, upgrade and removal"
inside "$root" bash /packages/installation.sh /packages/older /packages/newer

say "The cases of debian/tests"
# Its TMPDIR would have to be there, too.
with_mounts "$root" env -u TMPDIR autopkgtest --quiet "$folder"/*.dsc "$root"/packages/newer/*.deb -- chroot "$root"
