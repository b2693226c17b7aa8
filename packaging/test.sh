#!/usr/bin/env bash
# test.sh same | systemd | ARCHITECTURE: tests the packages that deb.sh has built, or builds them first. As root.
#   same          they are built again, with the same bytes
#   systemd       the server comes and goes with them where systemd runs, in an emulated machine
#   ARCHITECTURE  they are installed in a Debian of its own, upgraded and removed, and the cases of debian/tests run there;
#                 another processor is emulated
# IN_PLACE=yes says that this very system may be used where none of its own can be made.
set -euo pipefail
what=$1
cd "$(dirname "$0")/.."
. packaging/chroot.sh
. packaging/emulation.sh

expect_root "deb-test $what"
native=$(dpkg --print-architecture)
foreign=
case $what in same | systemd | "$native") ;; *) foreign=$what ;; esac
folder=build/deb${foreign:+-$foreign}
compgen -G "$folder/golt_*.deb" >/dev/null || packaging/deb.sh ${foreign:+"$foreign"}
[ "$what" != same ] || exec packaging/reproducible.sh "$folder"
[ "$what" != systemd ] || exec packaging/machine.sh "$folder"

root=$(mktemp -d)
finish() {
    stop_emulation
    rm -rf --one-file-system "$root"
}
trap finish EXIT

# test_in ROOT TESTBED...: ROOT may be empty for this system; TESTBED is where autopkgtest runs the cases.
test_in() {
    local root=$1 packages=$1/packages
    shift
    mkdir -p "$packages"/{older,newer}
    for name in golt libgolt0.8 libgolt-dev; do cp "$folder/${name}"_*_"$what.deb" "$packages/newer"; done
    packaging/older.sh "$packages/older" "$packages"/newer/*
    cp packaging/installation.sh "$packages"
    say "Installation, upgrade and removal"
    inside "$root" bash /packages/installation.sh /packages/older /packages/newer
    say "The cases of debian/tests"
    # Its TMPDIR would have to be there, too. Emulated, on a busy machine, apt takes minutes to think.
    with_mounts "$root" env -u TMPDIR \
        autopkgtest --quiet --timeout-factor=20 --no-built-binaries "$folder"/*.dsc "$packages"/newer/*.deb -- "$@"
}

if [ -n "$foreign" ] && ! start_emulation "$foreign"; then
    say "The kernel can't start programs of $foreign by itself (binfmt_misc)."
    run_unpacked "$folder" "$foreign" "$root"
    exit
fi
say "A Debian of its own for $what"
if make_chroot "$root" "$what"; then
    test_in "$root" chroot "$root"
elif [ -z "$foreign" ] && [ "${IN_PLACE:-}" = yes ]; then
    say "It can't be made here. This very system is taken instead: what it has may hide what the packages lack."
    trap 'rm -rf /packages; finish' EXIT
    test_in '' null
else
    say "It can't be made here."
    exit 1
fi
