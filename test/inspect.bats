#!/usr/bin/env bats
# golt info, frames and plot, run as a user runs them, on files of real encoders.

bats_require_minimum_version 1.5.0

picture() { # OUT SECONDS [OPTION...]
    local out=$1 seconds=$2
    shift 2
    ffmpeg -v error -nostdin -y -f lavfi -i "testsrc2=s=64x48:r=25:d=$seconds" \
        -f lavfi -i "sine=sample_rate=48000:duration=$seconds" -c:v libx264 -threads 1 \
        -preset ultrafast -g 25 -pix_fmt yuv420p -c:a ac3 -b:a 128k "$@" "$out"
}

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    picture movie.mp4 4
    picture movie.m2ts 4 -mpegts_m2ts_mode 1
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    cp "$BATS_FILE_TMPDIR"/* .
}

# json FILTER COMMAND...: what jq makes of the program's standard output, on one line.
json() {
    local filter=$1
    shift
    { $GOLT "$@" 2>said || true; } | jq -c "$filter"
}

# is EXPECTED WORDS...: the words are what was expected.
is() {
    echo "$2"
    [ "$1" = "$2" ]
}

@test "describes a file" {
    is '["mp4",4000,"h264",64,48,25000,256,"ac3",48000,257]' "$(json '[.format, .duration_ms,
        .video.codec, .video.width, .video.height, .video.frames_per_1000_s, .video.pid,
        .sound.codec, .sound.sample_rate, .sound.pid]' info movie.mp4 --json)"
    run -0 $GOLT info movie.mp4 --scan
    [[ $output == *'H.264, 64 x 48 pixels, pixel aspect 1:1, 25.000 frames/s, PID 0x100'* ]]
    [[ $output == *'H.264, 100 frames, '*' (4.000 s), '* ]]
    [[ $output == *'AC-3, 125 frames, 64000 bytes, '*' (4.000 s), 128.0 kbit/s'* ]]
    run -0 $GOLT info movie.mp4 movie.m2ts --scan
    [ "$(grep -c 'H.264, 100 frames, ' <<<"$output")" -eq 2 ]
    # Of M2TS files only the packets are known.
    is '[null,null]' "$(json '[.video, .sound]' info movie.m2ts --json)"
    [[ $($GOLT info movie.m2ts) == *'audio       not known without --scan'* ]]
    is '["h264","ac3",100]' "$(json '[.video.codec, .sound.codec, .scan.streams[0].frames]' \
        info movie.m2ts --json --scan)"
    # Blu-ray has no AAC, so that ffmpeg announces private data.
    ffmpeg -v error -nostdin -i movie.mp4 -c:v copy -c:a aac -f mpegts -mpegts_m2ts_mode 1 aac.m2ts
    is '[[27,"H.264"],[6,"private data"]]' "$(json '[.scan.streams[] | [.stream_type, .name]]' \
        info aac.m2ts --json --scan)"
    # A list of chapters, and an empty edit before the audio.
    printf ';FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1\nSTART=%s\nEND=%s\n' 0 2 2 4 >chapters.txt
    ffmpeg -v error -nostdin -i movie.mp4 -itsoffset 0.5 -i movie.mp4 -i chapters.txt -map 0:v -map 1:a \
        -map_metadata 2 -c copy late.mp4
    [[ $($GOLT info late.mp4) == *'chapters    2'*'AC-3'*', delayed by 49'* ]]
    $GOLT info late.mp4 --json >documents
    grep -q '"media_ms": [0-9]*$\|"media_ms": [0-9]*,' documents
    [ "$(grep -c '_ms": [0-9]*\.0' documents)" -eq 0 ]
    ffmpeg -v error -nostdin -i movie.mp4 -c:a libmp3lame movie.mp3
    [[ $($GOLT info movie.mp3) == *'seeking     no index'*'MPEG-1 Layer III'* ]]
    # What lies beside the tracks, and how the pictures are coded.
    echo words >wörds.txt
    ffmpeg -v error -nostdin -i movie.mp4 -c copy -attach wörds.txt -metadata:s:t mimetype=text/plain attached.mkv
    is '[["wörds.txt","text/plain",6],"Constrained Baseline","1"]' "$(json '[(.attachments[0] |
        [.name, .media_type, .size]), .tracks[0].profile, .tracks[0].level]' info attached.mkv --json)"
    [[ $($GOLT info attached.mkv) == *'attached    wörds.txt, text/plain, 6 bytes'* ]]
}

@test "lists frames" {
    $GOLT frames movie.mp4 --csv >csv
    is 226 "$(wc -l <csv)"
    # Those that ffprobe finds.
    ffprobe -v error -select_streams v -show_entries packet=pts_time,size -of csv=p=0 movie.mp4 |
        awk -F, '{ printf "%.0f\n", $1 * 1000 }' >expected
    awk -F, '$2 == "video" { print $5 }' csv | diff - expected
    is 4 "$(awk -F, '$2 == "video" && $8 ~ /(^|^7 8 .*)5$/' csv | wc -l)"
    is 125 "$(grep -c ',sound,257,ac3,.*,512,.*,48000,1,128000,1536$' csv)"

    is '["golt.frames/1",[7,8,6,5]]' \
        "$($GOLT frames movie.mp4 --json --count 2 |
            jq -s -c '[.[0].schema, (map(.nal_types // empty) | .[0])]')"
    is 3 "$($GOLT frames movie.mp4 --start 2000ms --count 2 | wc -l)"
    is 00:00:02.000 "$($GOLT frames movie.mp4 --start 2 | awk '/SPS/ { print $3; exit }')"
    is 100 "$($GOLT frames movie.m2ts | grep -c ' video ')"

    # Readers that go away, and ones that can't take it.
    run -0 bash -c "set -o pipefail; $GOLT frames movie.mp4 | head -n 1"
    is '  number stream         time    bytes  content' "$output"
    run -1 bash -c "$GOLT frames movie.mp4 >/dev/full"
    is 'golt: standard output: No space left on device' "$output"
}

@test "prints the figures of audio" {
    ffmpeg -v error -nostdin -i movie.mp4 -vn -ac 2 -ar 44100 -c:a libmp3lame -b:a 160k \
        -write_xing 0 audio.mp3
    ffmpeg -v error -nostdin -i movie.mp4 -vn -ac 2 -ar 22050 -c:a aac audio.m4a
    ffmpeg -v error -nostdin -i movie.mp4 -vn -ac 6 -c:a eac3 audio.mp4
    local figures='[.codec, .sample_rate, .channels, .bits_per_second, .samples]'
    is '["mp3",44100,2,160000,1152]' "$($GOLT frames audio.mp3 --json | sed -n 9p | jq -c "$figures")"
    is '["aac",22050,2,null,1024]' "$($GOLT frames audio.m4a --json | sed -n 9p | jq -c "$figures")"
    is '["eac3",48000,6,null,1536]' "$($GOLT frames audio.mp4 --json | sed -n 9p | jq -c "$figures")"
}

@test "draws a picture" {
    cp movie.mp4 'odd & <name>.mp4'
    run -0 $GOLT plot 'odd & <name>.mp4' -o out.svg
    is '' "$output"
    grep -q '>odd &amp; &lt;name&gt;.mp4</text>' out.svg
    grep -q 'prefers-color-scheme: dark' out.svg
    is 1 "$(grep -c '<path class="video"' out.svg)"
    is '</svg>' "$(tail -n 1 out.svg)"
    $GOLT plot 'odd & <name>.mp4' -o - | cmp - out.svg
    run -1 $GOLT plot movie.mp4 -o out.svg
    is 'golt: out.svg: exists already; --force replaces it' "$output"
}

# plotted FILE: its streams, each with how much the bars but the last differ in percent; the distances of its
# streams, if drawn; the marks of sync points; the words about them; the first and the last time at the axis.
plotted() {
    $GOLT plot --force "$1" -o out.svg
    python3 - out.svg <<'END'
import re, sys
svg = open(sys.argv[1]).read()
said = []
for kind in "video", "audio":
    for path in re.findall('class="%s" d="([^"]*)"' % kind, svg):
        bars = [236 - float(y) for y in re.findall("V([0-9.]+)H", path)][:-1]
        said.append("%s %.0f" % (kind, 100 * (max(bars) / min(bars) - 1)))
    assert ('class="%s-word">%s<' % (kind, kind) in svg) == (kind in " ".join(said))
said += ["distance"] if "distance" in svg else []
said.append(str(svg.count('class="sync"')))
said += re.findall("[0-9]+ sync point[^<]*", svg)
times = re.findall('middle"[^>]*>([^<]*)', svg)
print("; ".join(said + [times[0], times[-1]]))
END
}

@test "draws a constant rate as level, every sync point, and nothing that isn't there" {
    local tone="-f lavfi -i sine=r=48000:d=12" make="ffmpeg -v error -nostdin -y"
    $make $tone -b:a 128k a.mp3
    # Pictures of one size, and a key each second.
    $make -f lavfi -i color=gray:s=320x240:r=25:d=12 -c:v libx264 -threads 1 -preset ultrafast -g 25 -bf 2 \
        -x264-params nal-hrd=cbr:bitrate=500:vbv-maxrate=500:vbv-bufsize=20:scenecut=0 v.mp4
    $make -i v.mp4 $tone -c:v copy -c:a ac3 -b:a 192k av.mkv
    $make -i v.mp4 $tone -c:v copy -c:a aac -mpegts_m2ts_mode 1 av.m2ts
    $make -f lavfi -i testsrc2=s=32x32:r=0.2:d=7205 -c:v libx264 -threads 1 -preset ultrafast -g 20 long.mp4
    is 'audio 0; 0; 0:00; 0:12' "$(plotted a.mp3)"
    $make -f lavfi -i color=gray:s=64x48 -frames:v 1 -c:v libx264 -threads 1 one.mp4
    $GOLT plot one.mp4 -o one.svg
    [ "$(grep -c nan one.svg)" -eq 0 ]
    is 'video 1; 12; 12 sync points, at most 1.0 s apart; 0:01; 0:12' "$(plotted v.mp4)"
    is 'video 1; audio 0; distance; 12; 12 sync points, at most 1.0 s apart; 0:00; 0:12' "$(plotted av.mkv)"
    [[ $(plotted av.m2ts) == 'video 1; audio '[0-4]'; distance; 12; 12 sync points, at most 1.0 s apart; 0:02; 0:12' ]]
    [[ $(plotted long.mp4) == *'; 73; 73 sync points, at most 100.0 s apart; 0:00:00; 2:00:00' ]]
}

@test "writes well-formed pictures and JSON of any name" {
    local name
    for name in $'\xff\xfe' $'\x01\x1f' $'\xc0\xaf' $'\xed\xa0\x80' $'\xf4\x90\x80\x80' \
        $'\xef\xbf\xbe' $'\xe2\x82' ']]>&amp;"' $'\x7f\xc2\x85' $'\xf0\x9f\x8e\xac' $'\xf0\x9f\xbf\xbe'; do
        cp movie.mp4 "$name.mp4"
        $GOLT plot "$name.mp4" -o - >out.svg
        $GOLT info "$name.mp4" --json >out.json
        python3 -c 'import json, os, sys, xml.dom.minidom
xml.dom.minidom.parse("out.svg")
told = json.load(open("out.json"))["input"]
assert told == os.fsencode(sys.argv[1]).decode(errors="replace"), told' "$name.mp4"
    done
    run -2 $GOLT plot movie.mp4 -o ''
}

# work OUT COMMAND...: the processor's time that the program takes, in milliseconds. Other work doesn't lengthen it.
work() {
    local out=$1 TIMEFORMAT=%3U
    shift
    { time $GOLT "$@" >"$out" 2>errors || touch failed; } 2>&1 | tr -d .
}

@test "checks many streams as fast as it counts them" {
    python3 "$BATS_TEST_DIRNAME/many_streams.py" 200 1500 many.m2ts
    local scan check
    scan=$(work scanned info --scan many.m2ts)
    check=$(work checked check many.m2ts)
    echo "$scan ms, $check ms"
    [ ! -e failed ]
    [ "$(grep -c '1500 frames' scanned)" -eq 200 ]
    [ "$(grep -c '1500 frames' checked)" -eq 200 ]
    [ $((10#$check)) -lt $((4 * 10#$scan)) ]
}

@test "reports errors in JSON too" {
    is '["golt.error/1",1,"none: No such file or directory"]' \
        "$(json '[.schema, .status, .message]' check none --json)"
    is '["golt.error/1",2]' "$(json '[.schema, .status]' frames movie.mp4 --json --count 0)"
    is '["golt.error/1",2]' "$(json '[.schema, .status]' info --json)"
}

@test "help fits a screen, and the manual and the completions know all of it" {
    local host=$BATS_TEST_DIRNAME/../host subcommand option
    for subcommand in remux info frames check plot hls serve; do
        $GOLT $subcommand --help >help
        [ "$(wc -l <help)" -le 40 ]
        grep -q '^  golt '$subcommand help
        for option in $(grep -o -- '--[a-z-]\+' help | sort -u); do
            echo "$subcommand $option"
            [ "$option" = --help ] || grep -qE "Fl (. , )?-${option#--}\b" "$host/golt.1"
            grep "^ *$subcommand)\|http=\|shared=" "$host/completions/golt.bash" | grep -q -e "$option\b"
            grep -q -e "$option\b" "$host/completions/_golt"
        done
        # Where a value is no file, none is proposed.
        for option in $(grep -oE -- '--[a-z-]+ [A-Z:]+' help | grep -vE ' (FILE|TEXT|E)$' | sed 's/ .*//'); do
            echo "$subcommand $option"
            [ -z "$(bash -c '. "$1"; COMP_WORDS=(golt "${@:2}" ""); COMP_CWORD=3; _golt; echo "${COMPREPLY[@]}"' \
                - "$host/completions/golt.bash" $subcommand $option)" ]
        done
    done
}

@test "folders include what is below them alone" {
    local top=$BATS_TEST_DIRNAME/..
    # Of each row the first folder doesn't know the others.
    run grep -rnE '#include "(io|stream|outline)/|"golt\.h"' "$top/ts" --include=*.h --include=*.cpp
    [ -z "$output" ]
    run grep -rnE '#include "(stream|outline)/' "$top/host/io"
    [ -z "$output" ]
    run grep -rnE '#include "(remux|info|frames|check|plot|hls)\.h"|#include "hls/' "$top/host/io" "$top/host/stream"
    [ -z "$output" ]
    run grep -rnE '#include "(remux|info|frames|check|plot|hls|track_text)\.h"' "$top/host/hls"
    [ -z "$output" ]
}
