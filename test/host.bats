#!/usr/bin/env bats
# The program golt, run as a user runs it, in a directory of its own. GOLT is the command that runs
# it: the program's whole path, behind an emulator's where it needs one.

bats_require_minimum_version 1.5.0

# clip OUT RATE FRAMES: a test picture without B-frames, every 50th frame a key frame, with all
# that describes it before it.
clip() {
    ffmpeg -v error -nostdin -f lavfi -i "testsrc2=size=64x48:rate=$2" -frames:v "$3" \
        -c:v libx264 -threads 1 -preset ultrafast -g 50 -keyint_min 50 -pix_fmt yuv420p \
        -movflags +faststart "$1"
}

# with_audio OUT SECONDS: the picture of video.mp4, and a tone.
with_audio() {
    ffmpeg -v error -nostdin -i video.mp4 -f lavfi -i "sine=sample_rate=48000:duration=$2" \
        -c:v copy -c:a aac "$1"
}

# with_subtitle OUT FRAMES: two frames a second, and words that stay to the end of a file of 10 s.
with_subtitle() {
    printf '1\n00:00:00,000 --> 00:00:10,000\nwords\n' >words.srt
    ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=64x48:rate=2 -i words.srt -frames:v "$2" \
        -c:v libx264 -threads 1 -preset ultrafast -pix_fmt yuv420p "$1"
}

setup_file() {
    local samples=$BATS_TEST_DIRNAME/../samples
    cd "$BATS_FILE_TMPDIR"
    # More than one block read, more than one write, and more than a pipe holds.
    for _ in {1..6}; do cat "$samples/short.m2ts"; done >in.m2ts
    # The stream that has to come of it: packets of 188 bytes, without the stamps.
    perl -0777 -ne 'print unpack "(x4 a188)*"' in.m2ts >in.expected
    clip video.mp4 25 100
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    cp "$BATS_FILE_TMPDIR"/* .
}

# golt ARGUMENTS: what the shell makes of them; a program that fails in a pipeline is reported.
golt() {
    set -o pipefail
    eval "$GOLT remux $1"
}

# Tables of tests are calls of the functions below, a row each: bats prints the one that failed.

# ends STATUS MESSAGE ARGUMENTS: golt ends with the status, and the message is in what it says.
ends() {
    run "-$1" golt "$3"
    [[ $output == *"$2"* ]]
}

# writes STATUS OUT ARGUMENTS: OUT is the stream of in.m2ts, and nothing else is left.
writes() {
    ends "$1" '' "$3"
    cmp "$2" in.expected
    [ ! -e "$2.part" ]
}

# refuses STATUS MESSAGE ARGUMENTS: there is neither a file "out" nor a part of it.
refuses() {
    ends "$1" "golt: $2" "$3"
    [ ! -e out ]
    [ ! -e out.part ]
}

# judges FILE STATUS MESSAGE: an ending that is whole, or otherwise reported; one that the user wants
# before that is always whole.
judges() {
    ends "$2" "$3" "$1 $1.out"
    [ -s "$1.out" ]
    ends 0 '' "$1 - --frames 3 >/dev/null"
}

@test "writes the stream and nothing else" {
    cp in.m2ts bytes_decide.mp4
    { head -c 100 /dev/zero; cat in.m2ts; } >NAME_DECIDES.MTS
    writes 0 in.ts           'in.m2ts'
    writes 0 other           'in.m2ts other --frames 1152'
    writes 0 stream          'in.m2ts - >stream'
    writes 0 piped           'in.m2ts /dev/stdout | cat >piped'
    writes 0 closed.ts       'in.m2ts closed.ts >&-'
    writes 0 bare.ts         'in.m2ts bare.ts <&- >&- 2>&-'
    # The standard output by other names.
    ln -s /proc/self/fd/1 link
    writes 0 fd              'in.m2ts /dev/fd/1 >fd'
    writes 0 proc            'in.m2ts /proc/self/fd/1 | cat >proc'
    writes 0 linked          'in.m2ts link >linked'
    writes 0 again           'in.m2ts again >again'
    writes 0 bytes_decide.ts 'bytes_decide.mp4'
    writes 0 named.ts        '--format video/ts in.m2ts named.ts'
    # What is before the first packet is reported.
    writes 3 NAME_DECIDES.ts 'NAME_DECIDES.MTS'
}

@test "says what it has written, or nothing" {
    ends 0 'out: 1152 packets, 216576 bytes' 'in.m2ts out'
    ends 0 'one: 1 packet, 188 bytes' 'in.m2ts one --frames 1'
    ends 0 'two: 2 frames, ' 'video.mp4 two --frames 2'
    # The library's own words, when they are wanted.
    [[ $output != *GOLT* ]]
    ends 0 'GOLT/' '-v video.mp4 three'
    ends 1 $'the library says: GOLT/mp4: \'ftyp\' box not found\ngolt: in.m2ts: not a valid' \
        'in.m2ts four --format mp4'
    ends 0 '' '-q in.m2ts quiet'
    [ -z "$output" ]
    # The reader goes away.
    ends 1 '' '-q in.m2ts - | true'
    [ "$output" = 'golt: standard output: Broken pipe' ]
}

@test "refuses and leaves no file behind" {
    printf old >old.ts
    printf old >begun.ts.part
    local time
    : >empty.mp4
    printf 'no medium at all' | tee text.txt >text.m2ts
    perl -pe 's/trak/free/' video.mp4 >tracks.mp4
    cp in.m2ts kept.m2ts
    ln in.m2ts linked.ts
    ln -s loop.ts loop.ts

    refuses 2 'IN is required' ''
    refuses 2 'OUT: the name is empty' 'in.m2ts ""'
    refuses 2 'IN: the name is empty' '"" out'
    refuses 2 '--frames: 0 is not a valid N' 'in.m2ts out --frames 0'
    refuses 2 '--frames: -1 is not a valid N' 'in.m2ts out --frames -1'
    for time in 1:60 . 5. .5 5s5 1.5.5 5d 1:00s 1:2:3:4 -1; do
        refuses 2 "--start: $time is not a valid TIME" "in.m2ts out --start='$time'"
    done
    refuses 2 '--to: 4294967296 is not a valid TIME' 'in.m2ts out --to 4294967296'
    refuses 2 '--to has to be after --start' 'in.m2ts out --start 2000ms --to 0:02'
    refuses 2 'in.m2ts: the frames of m2ts have no times' 'in.m2ts out --start 0'
    refuses 1 "standard input: can't be sought in" '- out < <(cat in.m2ts)'
    refuses 1 'gone.mp4: No such file' 'gone.mp4 out'
    refuses 1 '.: Is a directory' '. out'
    refuses 1 '/dev/null: not a regular file' '/dev/null out'
    refuses 1 'empty.mp4: the file is empty' 'empty.mp4 out'
    refuses 1 'text.txt: format not recognised' 'text.txt out'
    refuses 1 'text.m2ts: not a valid m2ts file' 'text.m2ts out'
    refuses 1 'in.m2ts: format avi not supported' 'in.m2ts out --format avi'
    refuses 1 'tracks.mp4: it has neither video nor audio' 'tracks.mp4 out'
    refuses 1 'video.mp4: no frame follows 00:00:04.001' 'video.mp4 out --start 4.001'
    refuses 1 'gone/out: No such file' 'in.m2ts gone/out'
    refuses 1 'loop.ts: Too many levels' 'in.m2ts loop.ts --force'
    refuses 1 'old.ts: exists already' 'in.m2ts old.ts'
    refuses 1 'begun.ts.part: was left by a run' 'in.m2ts begun.ts'
    refuses 1 'linked.ts: is the input itself' 'in.m2ts linked.ts --force'
    refuses 1 'standard output: is the input itself' 'in.m2ts - >>in.m2ts'
    refuses 1 'standard output: Bad file descriptor' 'in.m2ts - >&-'
    refuses 1 '/dev/full: No space left on device' 'in.m2ts /dev/full'
    refuses 1 'standard output: No space left on device' 'in.m2ts - >/dev/full'

    [ "$(cat old.ts begun.ts.part)" = oldold ]
    cmp in.m2ts kept.m2ts
}

@test "replaces only by force" {
    printf old | tee old.ts >old.ts.part
    ln -s old.ts link.ts
    chmod 600 old.ts
    writes 0 old.ts '--force in.m2ts link.ts'
    [ -L link.ts ]
    [ "$(stat -c %a old.ts)" = 600 ]
    # Who may not give files away can give them to a group. The test may, as root.
    if chown 4321:4322 old.ts; then
        run -0 setpriv --bounding-set -chown --groups 4322 $GOLT remux -q --force in.m2ts old.ts
        [ "$(stat -c %u:%g old.ts)" = 0:4322 ]
    fi
    # A link that leads to nothing yet.
    ln -s new.ts dangling.ts
    writes 0 new.ts 'in.m2ts dangling.ts'
    [ -L dangling.ts ]
    # What was left under the unfinished name may be a link, too.
    ln -s video.mp4 again.ts.part
    refuses 1 'again.ts.part: was left by a run' 'in.m2ts again.ts'
    writes 0 again.ts '--force in.m2ts again.ts'
    cmp video.mp4 "$BATS_FILE_TMPDIR/video.mp4"
}

@test "gives a file its name when it is safe on its disk" {
    run -1 python3 "$BATS_TEST_DIRNAME/deny.py" fsync $GOLT remux -q in.m2ts out
    [ "$output" = 'golt: out: Function not implemented' ]
    [ ! -e out ] && [ ! -e out.part ]
}

@test "knows formats by their first bytes" {
    local head
    for head in '\x1A\x45\xDF\xA3' 'ID3\x03' '\xFF\xFB\x90\x64' '\x00\x00\x00\x10ftypisom'; do
        { printf '%b' "$head"; head -c 64 /dev/zero; } >file
        echo "$head"  # bats shows it where the check fails
        run golt 'file out --force'
        [ "$status" -ne 2 ]
        [[ -n $output && $output != *'not recognised'* ]]
    done
}

@test "keeps to the times asked" {
    # Frames of 1152 samples: 0, 26, 52 ms and so on; frame 39 is at 1018.
    ffmpeg -v error -nostdin -f lavfi -i sine=sample_rate=44100 -frames:a 100 -write_xing 0 \
        -id3v2_version 0 audio.mp3
    ends 0 ': 100 frames, ' 'video.mp4 1'
    ends 0 ': 7 frames, '   'video.mp4 2 --frames 7'
    ends 0 ': 25 frames, '  'video.mp4 3 --to 1'
    ends 0 ': 26 frames, '  'video.mp4 4 --to 1001ms'
    ends 0 ': 50 frames, '  'video.mp4 5 --start 0:02.5'
    ends 0 ': 75 frames, '  'video.mp4 6 --start 1.5 --to 0:03'
    ends 0 ': 100 frames, ' 'video.mp4 7 --start 0 --frames 500'
    ends 0 ': 100 frames, ' 'audio.mp3 8 --start 0'
    ends 0 ': 62 frames, '  'audio.mp3 9 --start 1s'
    ends 0 ': 5 frames, '   'audio.mp3 10 --start 0:01 --to 1.1s'
}

@test "distinguishes a whole input from one that ends early" {
    clip slides.mp4 1/10 6
    clip day.mp4 1/1000 100
    # The duration in "mdhd" of version 0 (ISO/IEC 14496-12).
    perl -0777 -pe 's/mdhd.{16}\K.{4}/\0\0\0\0/s' video.mp4 >untimed.mp4
    with_audio short_audio.mp4 0.4
    with_audio long_audio.mp4 10
    # One byte is left of the frame after that of 2.44 s.
    local at
    at=$(ffprobe -v error -show_entries packet=pos -of csv=p=0 video.mp4 | sed -n 63p)
    head -c $((at + 1)) video.mp4 >cut.mp4
    with_subtitle longer_subtitle.mkv 11
    head -c 1920 in.m2ts >whole.m2ts
    head -c 1919 in.m2ts >cut.m2ts
    { cat whole.m2ts; head -c 192 /dev/zero; cat whole.m2ts; } >sync_lost.m2ts

    judges video.mp4           0 ': 100 frames'
    judges slides.mp4          0 ': 6 frames'
    judges day.mp4             0 ', 27:46:40.000'
    judges untimed.mp4         0 ': 100 frames'
    judges short_audio.mp4     0 ''
    judges long_audio.mp4      0 ''
    judges cut.mp4             3 'ended at 00:00:02.480 of 00:00:04.000'
    judges longer_subtitle.mkv 0 ': 11 frames'
    judges whole.m2ts          0 ': 10 packets'
    judges cut.m2ts            3 '191 of its 1919 bytes are in none'
    judges sync_lost.m2ts      3 '2112 of its 4032 bytes'
    ends 0 '' 'untimed.mp4 out --to 1:00'  # an end that isn't there
}

@test "a signal ends a write to a reader that has stopped" {
    mkfifo pipe
    sleep 60 <pipe &
    local reader=$! status=0
    $GOLT remux -q in.m2ts - >pipe 2>said &
    local writer=$!
    sleep 1
    kill -TERM $writer
    wait $writer || status=$?
    kill $reader
    [ "$status" -eq 143 ]
    [ "$(cat said)" = 'golt: standard output: stopped by SIGTERM' ]
}

@test "a pipe gets whole packets, also at a signal" {
    mkfifo pipe
    for _ in {1..4}; do cat in.m2ts; done >long.m2ts
    exec 4<>pipe
    $GOLT remux -q long.m2ts - >pipe 2>said &
    local writer=$! size
    # Until the pipe is full, more or less.
    python3 -c 'import array, fcntl, termios, time
held = array.array("i", [0])
while held[0] < 50000:
    time.sleep(0.1)
    fcntl.ioctl(4, termios.FIONREAD, held)'
    kill -TERM $writer
    wait $writer || true
    exec 5<pipe 4>&-
    size=$(wc -c <&5)
    exec 5<&-
    echo "$size"
    [ "$size" -gt 50000 ]
    [ $((size % 188)) -eq 0 ]
    # A descriptor that doesn't block, with a reader that takes its time.
    run -0 python3 -c "import os, subprocess, sys, time
for command in sys.argv[1:]:
    read, write = os.pipe()
    os.set_blocking(write, False)
    child = subprocess.Popen(command, shell=True, stdout=write)
    os.close(write)
    time.sleep(0.5)
    while os.read(read, 65536): pass
    assert child.wait() == 0, command" "$GOLT frames long.m2ts --csv" "$GOLT remux -q long.m2ts -"
}

# plain FILE: there is nothing in it that a terminal takes for a command, nor a line that begins within a name.
plain() {
    cat -v "$1"
    ! LC_ALL=C grep -qP '[\x00-\x08\x0B-\x1F\x7F]|\xC2[\x80-\x9F]|\xE2\x80\xAE|^x\.mp4' "$1"
}

@test "a terminal gets text alone" {
    local name=$'re\x1b[31md\x7f\xc2\x9b\xff\xe2\x80\xae\nx.mp4'
    cp video.mp4 "$name"
    # The letters of a kind of sample that the library doesn't know.
    perl -pe 's/avc1/\x1b[2J/g' video.mp4 >escapes.mp4
    with_audio sound.mp4 4
    perl -pe 's/mp4a/\x1b[3J/g' sound.mp4 >audio.mp4
    for words in info frames check 'info --json' 'frames --json' 'check --json' 'remux -v'; do
        for file in "$name" escapes.mp4 audio.mp4 "no$name"; do
            $GOLT ${words% *} "$file" $([[ $words != *-* ]] || printf -- "${words#* }") &>>said || true
        done
    done
    $GOLT info "$name" audio.mp4 &>>said || true
    $GOLT "$name" &>>said || true
    $GOLT info video.mp4 --format "$name" &>>said || true
    plain said
    grep -qF 're\x1B[31md\x7F\u009B\xFF\u202E\x0Ax.mp4' said
    grep -qF '?[2J isn' said
    grep -qF "Audio format: '\x1B[3J' unsupported" said
}

@test "reports when its help can't be written" {
    for words in --help --version 'remux --help'; do
        run -1 bash -c "$GOLT $words >/dev/full"
        [ "$output" = 'golt: standard output: No space left on device' ]
    done
}

@test "reports a file that may not grow" {
    run -1 bash -c "ulimit -f 100; $GOLT remux -q in.m2ts out"
    [ "$output" = 'golt: out: File too large' ]
    [ ! -e out ] && [ ! -e out.part ]
}
