#!/usr/bin/env bash
# unpack_armhf.sh FOLDER: what golt-static for 32-bit ARM takes beside the cross compiler: the static libraries of
# Debian's armhf packages, and the headers of this machine's that are the same for every processor. apt gets lists of
# its own, so that the machine needn't know another architecture.
set -euo pipefail
folder=$(realpath "$1")
state=$folder/apt
[ ! -f "$folder/complete" ] || exit 0
mkdir -p "$state/lists/partial" "$state/archives/partial" "$folder/usr/include"
apt=(apt-get -qq -o "APT::Architectures::=armhf" -o "APT::Sandbox::User=$(id -un)"
    -o "Dir::State::Lists=$state/lists" -o "Dir::Cache=$state")
# An index that can't be had needn't be one of these packages.
"${apt[@]}" update || true
cd "$state"
"${apt[@]}" download libmicrohttpd-dev:armhf libseccomp-dev:armhf
for package in ./*.deb; do dpkg-deb --extract "$package" "$folder"; done
for headers in fmt CLI nlohmann; do ln -sfn "/usr/include/$headers" "$folder/usr/include/$headers"; done
rm -r "$state"
touch "$folder/complete"
