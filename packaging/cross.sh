#!/usr/bin/env bash
# cross.sh ARCHITECTURE FOLDER: builds the binary packages for another architecture, from the source package in FOLDER and
# into it. In a folder of its own, since the packages of two compilers and two architectures exclude each other. As root.
set -euo pipefail
architecture=$1
folder=$(cd "$2" && pwd)
cd "$(dirname "$0")"
. ./chroot.sh

root=$(mktemp -d)
trap 'rm -rf --one-file-system "$root"' EXIT
say "Debian for the cross build"
make_chroot "$root" "amd64,$architecture" --include="build-essential,crossbuild-essential-$architecture"
mkdir "$root/build"
cp "$folder"/*.dsc "$folder"/*.tar.* "$root/build"
# shellcheck disable=SC2016
inside "$root" sh -ec '
    cd /build
    apt-get update -qq
    apt-get build-dep -y -qq --no-install-recommends --host-architecture "$0" -P cross,nocheck ./*.dsc >/dev/null
    dpkg-source --extract *.dsc source
    cd source
    DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage --jobs=auto --host-arch "$0" --build=any -Pcross,nocheck \
        --unsigned-source --unsigned-changes' "$architecture"
cp "$root"/build/*_"$architecture".* "$folder"
