#!/usr/bin/env bash
# service.sh OLDER NEWER: where systemd runs, installs the packages in the folder OLDER, enables the server, upgrades to
# those in NEWER, removes and purges them. What they need has to be there. As root, in a system that may be thrown away.
set -euo pipefail
older=$1 newer=$2
names=$(for package in "$newer"/*.deb; do dpkg-deb -f "$package" Package; done)
units=(golt-serve.socket golt-serve.service)

fail() {
    echo "service: $*"
    systemctl status --no-pager "${units[@]}"
    exit 1
} >&2

# serves [OPTIONS OF CURL]
serves() { curl -fs -o /dev/null "$@" http://127.0.0.1:8080/movie.mp4/index.m3u8; }

# expect_server WHEN: it answers, and all its processes run the program that is there; one that was replaced shows as
# deleted. Nothing else in the system has failed.
expect_server() {
    local group process program
    serves --retry 30 --retry-delay 1 --retry-all-errors || fail "$1 nothing is served"
    group=$(systemctl show -P ControlGroup golt-serve.service)
    [ -n "$group" ] && grep -q . "/sys/fs/cgroup$group/cgroup.procs" || fail "$1 the server has no process"
    while read -r process; do
        program=$(readlink "/proc/$process/exe")
        [ "$program" = /usr/bin/golt ] || fail "$1 the server runs $program"
    done <"/sys/fs/cgroup$group/cgroup.procs"
    expect_no_failure "$1"
}

expect_no_failure() {
    local failed
    failed=$(systemctl list-units --failed --plain --no-legend)
    [ -z "$failed" ] || fail "$1 there is a failed unit: $failed"
}

# comes_and_goes UNIT...: with these enabled.
comes_and_goes() {
    local unit process left
    echo "service: with $*"
    dpkg -i "$older"/*.deb >/dev/null
    for unit in "${units[@]}"; do
        ! systemctl --quiet is-active "$unit" || fail "$unit runs unasked"
        ! systemctl --quiet is-enabled "$unit" || fail "$unit is enabled unasked"
    done
    systemctl --quiet enable --now "$@"
    expect_server "before the upgrade"
    process=$(systemctl show -P MainPID golt-serve.service)

    dpkg -i "$newer"/*.deb >/dev/null
    expect_server "after the upgrade"
    [ "$(systemctl show -P MainPID golt-serve.service)" != "$process" ] || fail "the upgrade didn't restart the server"
    for unit in "$@"; do
        systemctl --quiet is-active "$unit" || fail "the upgrade stopped $unit"
        systemctl --quiet is-enabled "$unit" || fail "the upgrade disabled $unit"
    done

    # shellcheck disable=SC2086
    dpkg --remove $names >/dev/null
    ! pgrep -x golt || fail "the server outlives the program"
    ! serves || fail "the port is still open"
    expect_no_failure "after the removal"
    # shellcheck disable=SC2086
    dpkg --purge $names >/dev/null 2>&1
    expect_no_failure "after the purge"
    left=$(
        systemctl list-units --all --plain --no-legend 'golt*'
        systemctl list-unit-files --no-legend 'golt*'
        find / /run /sys/fs/cgroup -ignore_readdir_race -xdev -path /packages -prune -o -name '*golt*' -print
    )
    [ -z "$left" ] || fail "this is left: $left"
}

mkdir -p /srv/films
cp "$(dirname "$0")/h264_aac.mp4" /srv/films/movie.mp4
comes_and_goes golt-serve.socket
comes_and_goes golt-serve.service
comes_and_goes "${units[@]}"
echo "service: started, upgraded, removed three times; nothing is left"
