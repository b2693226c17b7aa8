#!/usr/bin/env bats
# golt-static, for ./dev static: it needs nothing but itself. STATIC is its path, GOLT that of the ordinary program,
# EMULATOR what runs the former where this machine's processor doesn't.

bats_require_minimum_version 1.5.0

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    local copy="ffmpeg -v error -nostdin -i film.mp4"
    mkdir box
    cp "$STATIC" box/golt-static
    cp "$BATS_TEST_DIRNAME/../samples/short.m2ts" box
    cd box
    cp "$BATS_TEST_DIRNAME/../samples/h264_aac.mp4" film.mp4
    $copy -c copy film.mkv
    $copy -vn -c:a libmp3lame music.mp3
}

setup() {
    cd "$BATS_FILE_TMPDIR"
    export no_proxy=127.0.0.1
    server=
}

teardown() {
    [ -z "$server" ] || kill "$server"
}

# alone ARGUMENTS...: the program, where there is nothing but it and the files. It takes the place of this shell.
# An emulator can't follow it there, but finds no loader.
alone() {
    if [ -n "$EMULATOR" ]; then
        cd box
        exec $EMULATOR -L "$PWD" ./golt-static "$@"
    elif [ "$(id -u)" -eq 0 ]; then
        exec chroot box /golt-static "$@"
    else
        exec unshare --user --map-root-user chroot box /golt-static "$@"
    fi
}

@test "names no loader and no library" {
    run -0 readelf --program-headers --dynamic --wide "$STATIC"
    [[ $output == *LOAD* && $output != *INTERP* && $output != *NEEDED* ]]
    [ -n "$EMULATOR" ] || run -0 ldd "$STATIC"
    [[ -n $EMULATOR || $output == *'statically linked'* ]]
    # Nothing is left in it that names this folder.
    run ! grep -q "$(realpath "$BATS_TEST_DIRNAME/..")" "$STATIC"
}

@test "does alone what the other program does" {
    for file in film.mp4 film.mkv music.mp3 short.m2ts; do
        (cd box && "$GOLT" info --scan --json "$file") >expected
        (alone info --scan --json "$file") | diff - expected
        "$GOLT" remux -q "box/$file" - >expected
        (alone remux -q "$file" -) | cmp - expected
    done
    "$GOLT" hls -q box/film.mkv expected.hls
    (alone hls -q film.mkv segments)
    diff -r box/segments expected.hls
}

@test "serves alone" {
    "$GOLT" hls -q box/film.mp4 expected.film
    alone serve --port 0 film.mp4 2>said 3>&- &
    server=$!
    for _ in {1..100}; do grep -q 'http:' said && break || sleep 0.1; done
    base=$(grep -o 'http:.*[0-9]' said)
    playlist=$(curl -fsS "$base/film.mp4/index.m3u8" | tail -n 1)
    curl -fsS "$base/film.mp4/${playlist%/*}/0.ts" | cmp - expected.film/0.ts
    # The kernel calls of its processes are limited by the library in it. An emulator has no such limits.
    [ -n "$EMULATOR" ] || [ "$(grep -l 'Seccomp:.2' $(pgrep -P "$server" | sed 's,.*,/proc/&/status,') | wc -l)" -ge 2 ]
}

@test "says what it doesn't do" {
    run -1 alone info http://127.0.0.1/film.mp4
    [[ $output == *'golt-static reads no URLs'* ]]
    run -1 alone serve --port 0 --bind localhost /
    [[ $output == *'golt-static looks up no names'* ]]
}
