#!/usr/bin/env bats
# The pages: links lead somewhere, and commands work. BUILD is the build tree, CXX its compiler.

bats_require_minimum_version 1.5.0

# Blocks of commands that aren't run, by page and first line, and why.
not_run() {
    case "$1: $2" in
    'README.md: apt install '*) echo 'needs root; ./dev deb-test installs them' ;;
    'docs/which.md: ./dev static arm') echo 'needs a router; ./dev static tests the file' ;;
    'docs/serving.md: echo '*) echo 'needs root and systemd' ;;
    'docs/host.md: c++ host.cpp $(pkg-config --cflags --libs golt)  '*) echo 'the same as in docs/which.md' ;;
    'docs/host.md: c++ host.cpp $(pkg-config --cflags --libs golt) -lgolt_stage'*) echo 'likewise' ;;
    *) return 1 ;;
    esac
}

setup_file() {
    export TOP=$BATS_TEST_DIRNAME/.. PREFIX=$BATS_FILE_TMPDIR/prefix
    cmake --install "$BUILD" --prefix "$PREFIX"
}

# What stands in for programs of the reader, and for those that would never end.
stand_ins() {
    mkdir bin
    ln -s "$(command -v "$CXX")" bin/c++
    cat >bin/player <<'SH'
#!/bin/bash
[ "$*" = - ] && [ "$(head -c 1)" = G ] && cat >/dev/null
SH
    # A server is asked for its page, and ended.
    cat >bin/golt <<'SH'
#!/bin/bash
set -e
[ "$1" = serve ] || exec "$PREFIX/bin/golt" "$@"
# Of a server before it the address would still be there.
: >said
"$PREFIX/bin/golt" "$@" --port 0 2>said 3>&- &
trap 'kill $!' EXIT
for _ in {1..300}; do grep -qs http: said && break || sleep 0.1; done
curl -fsS --noproxy '*' "$(sed -n 's/.*\(http:.*\)/\1/p' said | head -n 1)" | grep -q movie.mp4
trap - EXIT
kill $!
wait $! || [ $? -eq 143 ]
SH
    # Of the builds only the verb counts: each has tests of its own.
    cat >dev <<'SH'
#!/bin/bash
case $1 in
remux) exec golt "$@" ;;
*) "$TOP/dev" help | grep -qE "^(\./dev|.* \|) ([a-z0-9-]+ \| )*$1\b" ;;
esac
SH
    chmod +x bin/* dev
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    stand_ins
    export PATH=$PWD/bin:$PATH HOME=$PWD
    export PKG_CONFIG_PATH=$(dirname "$(find "$PREFIX" -name golt.pc)")
    export LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
}

teardown() {
    [ -z "${server:-}" ] || kill "$server"
}

# The files that the pages name.
files() {
    "$TOP/test/guide_host.sh" plain >host.cpp
    "$TOP/test/guide_host.sh" stage >staged.cpp
    cp "$TOP/samples/h264_aac.mp4" movie.mp4
    golt remux -q movie.mp4 recording.ts
    ffmpeg -v error -nostdin -i movie.mp4 -c copy movie.mkv
    mkdir -p Videos
    cp movie.mp4 Videos
}

# blocks PAGE: writes each block of commands to a file of its own, block.1 and so on.
blocks() {
    awk '/^```sh$/ { f = "block." ++n; printf "" > f; next } /^```/ { f = ""; next } f { print > f }' "$1"
}

@test "Commands of the pages work" {
    local page block first reason ran=0
    for page in $(cd "$TOP" && ls *.md docs/*.md); do
        mkdir -p "blocks/$page"
        (cd "blocks/$page" && blocks "$TOP/$page")
        for block in "$PWD/blocks/$page"/block.*; do
            [ -e "$block" ] || continue
            first=$(head -n 1 "$block")
            echo "$page: $first"
            if reason=$(not_run "$page" "$first"); then
                echo "not run: $reason"
                continue
            fi
            rm -rf work
            mkdir work
            (cd work && HOME=$PWD && ln -s ../dev && files && bash -euo pipefail "$block")
            ran=$((ran + 1))
        done
    done
    [ "$ran" -ge 8 ]
}

@test "Links of the pages lead to files and headings that are there" {
    python3 "$TOP/test/links.py" "$TOP"
}

@test "The manual is well-formed" {
    run -0 groff -mdoc -Tutf8 -ww -z "$TOP/host/golt.1"
    [ -z "$output" ]
}

@test "The page about JSON names every field" {
    local key missing=()
    files
    cp "$TOP/samples/short.m2ts" .
    # Of a constant rate, but for the first PCR.
    ffmpeg -v error -nostdin -i movie.mp4 -c copy -muxrate 4M constant.ts
    perl -0777 -pe 's/^((?:.{188})*?G..[ -?].[\x10-\x1F\x50-\x5F].{5})(.)/$1 . ($2 ^ "\x80")/es' constant.ts >jitter.ts
    golt info --scan --json movie.mp4 movie.mkv short.m2ts recording.ts >documents
    golt check --json movie.mkv recording.ts short.m2ts jitter.ts >>documents || true
    golt frames --json recording.ts >>documents
    golt frames --json movie.mp4 >>documents
    golt info --json none >>documents || true
    "$PREFIX/bin/golt" serve Videos --port 0 2>said 3>&- &
    server=$!
    for _ in {1..300}; do grep -q http: said && break || sleep 0.1; done
    for page in status movie.mp4/details.json; do
        curl -fsS --noproxy '*' "$(sed -n 's/.*\(http:.*\)/\1/p' said)$page" >>documents
    done
    kill "$server"
    server=
    jq -r '.. | objects | keys[]' documents | sort -u | grep -v '^[1-5]xx$' >keys
    [ "$(wc -l <keys)" -gt 100 ]
    while read -r key; do
        grep -q "\`.*\b$key\b.*\`" "$TOP/docs/json.md" || missing+=("$key")
    done <keys
    echo "${missing[*]}"
    [ ${#missing[@]} -eq 0 ]
}
