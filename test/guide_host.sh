#!/usr/bin/env bash
# guide_host.sh plain | stage: the complete program of the guide for hosts, as a reader copies it; with stage, the lines
# that the guide adds put where it says.
set -euo pipefail
guide=$(dirname "$0")/../docs/host.md

# block LANGUAGE: the blocks of that language.
block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$guide" | grep -v '^```'; }

if [ "$1" = plain ]; then
    block cpp
    exit
fi
added=$(block diff | sed -n 's/^+//p')
[ "$(wc -l <<<"$added")" -eq 4 ]
line() { grep "$1" <<<"$added"; }
block cpp | sed -e "s|^#include <libgolt.h>|&\n$(line '#include')|" -e "s|^ *Output output(out);|&\n$(line StageListener)|" \
    -e 's|&output, false|\&stage, false|' -e "s|^ *driver->destroyMuxer|$(line finish)\n&|"
