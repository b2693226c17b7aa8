# shellcheck shell=bash
# Debian in folders of their own, for scripts that source this. It takes root's rights.

suite=bookworm
# Without updates: of two architectures, all has to be of the same version.
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}

say() { printf '%s\n' "$*" >&2; }

# expect_root VERB
expect_root() {
    [ "$(id -u)" -eq 0 ] || {
        say "Chroots take root's rights: sudo ./dev $1"
        exit 1
    }
}

# In most containers mounts aren't allowed. Chroots then do without /proc and /dev.
may_mount() { unshare --mount mount -t tmpfs none /mnt 2>/dev/null; }

# make_chroot FOLDER ARCHITECTURES [ARGUMENTS OF MMDEBSTRAP]. What is thrown away soon needn't be safe on the disk. What
# mmdebstrap mounts and can't unmount, because somebody still looks at it, is gone with it.
make_chroot() {
    local folder=$1 architectures=$2 command=(unshare --mount mmdebstrap)
    shift 2
    may_mount || command=(mmdebstrap "--skip=check/canmount,chroot/mount")
    "${command[@]}" --quiet --mode=root --variant=minbase --architectures="$architectures" \
        --dpkgopt=force-unsafe-io --aptopt='Acquire::Retries "3"' "$@" "$suite" "$folder" "$mirror"
}

# with_mounts FOLDER COMMAND...: what is mounted there is gone when the command ends, however it ends, and so is all that
# it started. An empty FOLDER is this system.
with_mounts() {
    local folder=$1
    shift
    if [ -z "$folder" ] || ! may_mount; then
        "$@"
        return
    fi
    # shellcheck disable=SC2016
    unshare --mount --mount-proc --pid --fork --kill-child sh -ec '
        mount -t proc proc "$0/proc"
        mount --rbind /dev "$0/dev"
        exec "$@"' "$folder" "$@"
}

# inside FOLDER COMMAND...
inside() {
    local folder=$1 change=()
    shift
    [ -z "$folder" ] || change=(chroot "$folder")
    with_mounts "$folder" "${change[@]}" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} "$@"
}
