# shellcheck shell=bash
# Programs of other processors, for scripts that source this after chroot.sh.

binfmt=/proc/sys/fs/binfmt_misc
registered=
mounted=

# How a file of the architecture begins, and which of these bytes count; and qemu's name for it.
# shellcheck disable=SC2034
magic_armhf='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
# shellcheck disable=SC2034
mask_armhf='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
# shellcheck disable=SC2034
qemu_armhf=qemu-arm-static

# start_emulation ARCHITECTURE: has the kernel start its programs by qemu, unless it does already; 1 if it doesn't.
start_emulation() {
    local magic=magic_$1 mask=mask_$1 qemu=qemu_$1
    ! arch-test "$1" >/dev/null 2>&1 || return 0
    if [ ! -e $binfmt/register ]; then
        mount -t binfmt_misc binfmt_misc $binfmt 2>/dev/null || return 1
        mounted=$binfmt
    fi
    # F: the file is opened now, so that chroots need none of their own.
    echo ":golt-$1:M::${!magic}:${!mask}:/usr/bin/${!qemu}:F" 2>/dev/null >$binfmt/register || return 1
    registered=$binfmt/golt-$1
    arch-test "$1" >/dev/null
}

# Whatever fails, what comes after it still has to be done.
stop_emulation() {
    [ -z "$registered" ] || echo -1 >"$registered" || true
    [ -z "$mounted" ] || umount "$mounted" || true
}

# run_unpacked FOLDER ARCHITECTURE ROOT: without the kernel's help nothing can be installed. The packages and what they need
# are unpacked, and the program is run by qemu itself, with a sample.
run_unpacked() {
    local folder=$1 root=$3 qemu=qemu_$2 package
    make_chroot "$root" "$2" --variant=extract --include=libc6,libstdc++6,libcurl4,libmicrohttpd12,libseccomp2
    for package in golt libgolt0.8 libgolt-dev; do dpkg-deb -x "$folder/${package}"_*_"$2.deb" "$root"; done
    run() { "${!qemu}" -L "$root" "$@"; }
    run "$root/usr/bin/golt" --version
    run "$root/usr/bin/golt" remux --quiet --as-is samples/h264_aac.mp4 "$root/golt.ts"
    run "$root/usr/bin/golt" check samples/short.m2ts >/dev/null
    test/guide_host.sh plain >"$root/host.cpp"
    arm-linux-gnueabihf-g++ "$root/host.cpp" -I"$root/usr/include/golt" -L"$root/usr/lib/arm-linux-gnueabihf" -lgolt \
        -o "$root/host"
    run -E LD_LIBRARY_PATH="$root/usr/lib/arm-linux-gnueabihf" "$root/host" mp4 samples/h264_aac.mp4 "$root/host.ts"
    cmp "$root/host.ts" "$root/golt.ts"
    say "Unpacked, it runs. Installation, upgrade and removal were not tested."
}
