#!/usr/bin/env bats
# The same bytes on every machine. REFERENCE is the judge of the machine that builds, JUDGE that of
# another one; both have to say the same of the same files.

bats_require_minimum_version 1.5.0

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    mkdir files
    cp "$BATS_TEST_DIRNAME"/../samples/* files
    ffmpeg="ffmpeg -v error -nostdin"
    # Rates whose frames last no whole number of milliseconds, and a bit rate that varies.
    $ffmpeg -f lavfi -i "sine=sample_rate=44100:duration=60" -c:a libmp3lame -q:a 4 files/a.mp3
    $ffmpeg -f lavfi -i testsrc2=size=64x48:rate=24000/1001:duration=60 -i files/a.mp3 -c:a copy \
        -c:v libx264 -threads 1 -preset ultrafast -g 30 files/a.mp4
    $ffmpeg -i files/a.mp4 -c copy files/ffmpeg.mkv
    mkvmerge -q --deterministic 1 -o files/a.mkv files/a.mp4
}

setup() { cd "$BATS_TEST_TMPDIR"; }

# both ARGUMENTS OUT: what each judge makes of the arguments is the same, and something. The first line
# that the library prints has the time at which it was built.
both() {
    set -o pipefail
    mkdir -p here there
    (cd here && $REFERENCE $1 | grep -v built: >said)
    (cd there && $JUDGE $1 | grep -v built: >said)
    [ -s "here/$2" ]
    cmp "here/$2" "there/$2"
}

@test "Writes the same stream of every format" {
    local file
    for file in "$BATS_FILE_TMPDIR"/files/*.{mp3,mp4,mkv,m2ts}; do
        both "cached ${file##*.} $file" cached.ts
    done
}

@test "Lands on the same frames" {
    local file
    for file in "$BATS_FILE_TMPDIR"/files/a.{mp3,mp4,mkv}; do
        both "seeks ${file##*.} $file" said
        grep landed here/said
    done
}
