#!/usr/bin/env bash
# reproducible.sh FOLDER: builds the packages in FOLDER once more, by another user, elsewhere, more than a year later, in
# another time zone and language; they have to have the same bytes. As root.
set -euo pipefail
built=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"

mkdir "$work/locales" "$work/a longer name"
localedef -i tr_TR -f UTF-8 "$work/locales/tr_TR.UTF-8"
git clone --quiet --no-hardlinks . "$work/a longer name/clone"
# What isn't committed goes with it.
git ls-files -z --cached --others --exclude-standard --deduplicate |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar --create --null --files-from=- | tar --extract --directory="$work/a longer name/clone"
chown -R nobody "$work/a longer name"
(
    umask 077
    setpriv --reuid=nobody --regid=nogroup --clear-groups env -i PATH="$PATH" HOME="$work/a longer name" USER=nobody \
        TZ=Pacific/Kiritimati LOCPATH="$work/locales" LC_ALL=tr_TR.UTF-8 DEB_BUILD_OPTIONS=nocheck \
        faketime -f +400d "$work/a longer name/clone/packaging/build.sh" "$work/a longer name/packages" -Pnocheck \
        >"$work/log" 2>&1
) || {
    tail -n 60 "$work/log"
    exit 1
}
status=0
for package in "$built"/*.deb "$built"/*.dsc "$built"/*.tar.*; do
    cmp "$package" "$work/a longer name/packages/$(basename "$package")" || status=1
done
[ $status -ne 0 ] || echo "reproducible: $(find "$built" -name '*.deb' | wc -l) packages and their source have the same bytes"
exit $status
