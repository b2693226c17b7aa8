#!/usr/bin/env bash
# machine.sh FOLDER: runs service.sh with the packages in FOLDER, in a Debian of its own that systemd starts. Its machine is
# emulated throughout: virtual ones can't be had everywhere. As root.
set -euo pipefail
folder=$(cd "$1" && pwd)
cd "$(dirname "$0")"
. ./chroot.sh

work=$(mktemp -d)
trap 'rm -rf --one-file-system "$work"' EXIT
root=$work/system
packages=$root/packages
say "A Debian of its own, with systemd"
make_chroot "$root" amd64 \
    --include=linux-image-cloud-amd64,systemd-sysv,udev,curl,procps,libcurl4,libmicrohttpd12,libseccomp2
mkdir -p "$packages"/{older,newer}
for name in golt libgolt0.8 libgolt-dev; do cp "$folder/${name}"_*_amd64.deb "$packages/newer"; done
./older.sh "$packages/older" "$packages"/newer/*
cp service.sh ../samples/h264_aac.mp4 "$packages"
cat >"$root/etc/systemd/system/packages.service" <<'UNIT'
[Unit]
SuccessAction=poweroff
FailureAction=poweroff

[Service]
Type=oneshot
ExecStart=bash /packages/service.sh /packages/older /packages/newer
Environment=LC_ALL=C.UTF-8
StandardOutput=append:/packages/log
StandardError=append:/packages/log
UNIT
mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
ln -s ../packages.service "$root/etc/systemd/system/multi-user.target.wants"

say "Start, upgrade and removal of the service"
truncate --size=2G "$work/disk"
mke2fs -q -t ext4 -d "$root" "$work/disk"
timeout 3600 qemu-system-x86_64 -machine q35,accel=tcg -cpu max -smp 2 -m 768 -nic none -no-reboot \
    -display none -monitor none -serial "file:$work/console" -drive "file=$work/disk,if=virtio,format=raw,cache=unsafe" \
    -kernel "$root"/boot/vmlinuz-* -initrd "$root"/boot/initrd.img-* \
    -append "root=/dev/vda rw console=ttyS0 systemd.getty_auto=no panic=-1" || {
    tail -n 40 "$work/console" >&2
    exit 1
}
debugfs -R 'cat /packages/log' "$work/disk" 2>/dev/null >"$work/log"
cat "$work/log"
tail -n 1 "$work/log" | grep -q 'nothing is left$' || {
    tail -n 40 "$work/console" >&2
    exit 1
}
