#!/usr/bin/env bash
# installation.sh OLDER NEWER: installs the packages in the folder OLDER, upgrades to those in NEWER, removes and
# purges them. As root, in a system that may be thrown away. Fails where something is left.
set -euo pipefail
older=$1 newer=$2
names=$(for package in "$newer"/*.deb; do dpkg-deb -f "$package" Package; done)

fail() {
    echo "installation: $*" >&2
    exit 1
}

# All files, with what is in them, but the logs, the caches and the package manager's own.
list_files() {
    local not=(-xdev '(' -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /run -o -path /packages
        -o -path /var/cache -o -path /var/log -o -path /var/lib/apt -o -path /var/lib/dpkg ')' -prune)
    find / "${not[@]}" -o -printf '%p %m %u %g %l\n' | sort
    find / "${not[@]}" -o -type f -print0 | sort -z | xargs -0 md5sum
}

# dpkg reports documents as missing even where it was told to leave them out, as in small systems.
expected=' c /etc/default/golt-serve$'
if grep -qsr '^path-exclude' /etc/dpkg/dpkg.cfg /etc/dpkg/dpkg.cfg.d; then
    expected+='|^missing +/usr/share/(doc|man)/'
fi

# What they need comes first: it is there before and after.
apt-get update -qq
needed=$(for package in "$newer"/*.deb; do
    dpkg-deb -f "$package" Depends Recommends | sed -n 's/^[A-Z].*: //p' | tr ',' '\n'
done | sed 's/^ *//' | grep -vE '^(libgolt|golt)' | sort -u | paste -sd ,)
apt-get satisfy -y -qq --no-install-recommends "$needed" >/dev/null
list_files >/tmp/before

apt-get install -y -qq --no-install-recommends "$older"/*.deb >/dev/null
[ -s /usr/share/golt/before ] || fail "the older version isn't there"
# What an administrator does; the link is that of `systemctl enable golt-serve.socket`.
echo 'GOLT_SERVE=/srv/mine' >>/etc/default/golt-serve
enabled=/etc/systemd/system/sockets.target.wants/golt-serve.socket
mkdir -p "$(dirname "$enabled")"
ln -s /lib/systemd/system/golt-serve.socket "$enabled"

apt-get install -y -qq --no-install-recommends "$newer"/*.deb >/dev/null
for package in "$newer"/*.deb; do
    name=$(dpkg-deb -f "$package" Package)
    [ "$(dpkg-query -W -f '${Version} ${Status}' "$name")" = "$(dpkg-deb -f "$package" Version) install ok installed" ] ||
        fail "$name wasn't upgraded"
    dpkg --verify "$name" | grep -vE "$expected" && fail "$name isn't whole"
    [ ! -e "/usr/share/$name/before" ] || fail "a file of the older version is left"
done
grep -q '^GOLT_SERVE=/srv/mine$' /etc/default/golt-serve || fail "the upgrade lost the configuration"
[ -L "$enabled" ] || fail "the upgrade disabled the socket"
golt --version

# shellcheck disable=SC2086
apt-get remove -y -qq $names >/dev/null
[ ! -e /usr/bin/golt ] || fail "the program is left"
[ -e /etc/default/golt-serve ] || fail "the configuration went before it was purged"
# shellcheck disable=SC2086
dpkg --purge $names >/dev/null
list_files >/tmp/after
diff /tmp/before /tmp/after || fail "the above is left, or was changed"
if dpkg-query -W 2>/dev/null | grep golt; then fail "the package manager remembers them"; fi
echo "installation: installed, upgraded, removed: $(wc -l </tmp/after) lines about all files, as before"
