#!/usr/bin/env bats
# What receivers make of the stream: ffmpeg decodes it to the frames of the source at its times, GStreamer finds as
# many pictures and frames of audio and the same duration, tstools finds nothing to complain of. What was measured is
# the table in docs/receivers.md: each test makes its row again. `./dev receivers` writes them there.
# GOLT is the program, with what a foreign machine needs before it; TABLE, if set, gets the rows.

bats_require_minimum_version 1.5.0

# One thread: with several the encoder rates pictures by chance.
ffmpeg="ffmpeg -v error -nostdin -y -fflags +bitexact -flags +bitexact"
film="$ffmpeg -f lavfi -i testsrc2=s=176x144:r=25:d=4"
stereo="-f lavfi -i aevalsrc=sin(2800*t)|sin(5000*t)/2:d=4"
surround="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=4"
h264="-c:v libx264 -threads 1 -g 25 -bf 3"
big="-f lavfi -i nullsrc=s=640x480:r=5:d=2,geq=random(1)*255:128"

setup() { cd "$BATS_TEST_TMPDIR"; }

# decoded FILE v|a OPTION...: size and MD5 of each decoded frame. Nothing is taken away by edit lists or trimming.
decoded() {
    local file=$1 kind=$2
    shift 2
    ffmpeg -v error -nostdin "$@" -i "$file" -map "0:$kind" -fps_mode passthrough -f framemd5 - 2>said |
        grep -v '^#' | cut -d, -f5,6 || true
}

# times FILE v|a: of presentation, in seconds, sorted, as the edit list has them.
times() {
    ffprobe -v error -select_streams "$2" -show_entries packet=pts_time -of csv=p=0 "$1" | sed 's/,.*//' | grep . |
        sort -n || true
}

# of_gstreamer video|audio PARSER: GStreamer's count of buffers, and the seconds from the first one to the end of the
# last one. Of two kinds at once the lines would mix.
of_gstreamer() {
    [ "$2" != - ] || { echo 0 0; return; }
    # shellcheck disable=SC2086
    gst-launch-1.0 -v filesrc location=out.ts ! tsdemux name=d d. ! queue ! $2 ! fakesink name="$1" silent=false \
        sync=false >gstreamer
    perl -ne 'BEGIN { $kind = shift } next unless /chain .*\($kind:sink\).* pts: (\d+):(\d+):([\d.]+), duration: (\d+):(\d+):([\d.]+)/;
        $at = $1 * 3600 + $2 * 60 + $3; $end = $at + $4 * 3600 + $5 * 60 + $6; $n++;
        $first = $at if !defined $first || $at < $first; $last = $end if $end > $last;
        END { printf "%d %.2f", $n, $last - $first }' "$1" gstreamer
}

# Frames of audio that don't begin before the first picture.
after_start() { awk -v start="$(head -n 1 v.out)" '$1 >= start' a.out | wc -l; }

# The largest difference of times in two files of them, the first moved by the stage's second; milliseconds.
worst() {
    [ "$(wc -l <"$1")" -eq "$(wc -l <"$2")" ]
    paste "$1" "$2" | awk '{ d = ($2 - 1 - $1) * 1000; if (d < 0) d = -d; if (d > w) w = d } END { printf "%.1f", w }'
}

# receive NAME FILE VIDEO_PARSER AUDIO_PARSER [LOST]: what receivers make of the stream of the file, as a row of the
# table. Parsers are GStreamer's, or - where there is nothing, or "refused". LOST: decoded frames of audio at the start that ffmpeg leaves out of one of them.
receive() {
    local name=$1 file=$2 parsers=("$3" "$4") lost=${5:-0} row kind pictures=0 frames=0 off=0 one gst=() all
    $GOLT remux -q --force "$file" out.ts
    [ -z "$(tsreport out.ts 2>&1 | grep '###\|!!!')" ]

    for kind in v a; do
        times "$file" $kind >"$kind.source"
        times out.ts $kind >"$kind.out"
        one=$(worst "$kind.source" "$kind.out")
        off=$(echo "if ($one > $off) $one else $off" | bc)
        [ -s "$kind.source" ] || continue
        decoded "$file" $kind $(whole "$file") | tail -n "+$((1 + (0$([ $kind = a ] && echo "$lost")+0)))" >expected
        decoded out.ts $kind -xerror >got
        [ ! -s said ]
        [ -s got ]
        diff expected got
    done
    pictures=$(wc -l <v.source)
    frames=$(wc -l <a.source)
    [ "$(echo "$off <= 2.0" | bc)" = 1 ]

    row="| $name | $pictures | $frames | $(printf %.1f "$off") |"
    for kind in video audio; do
        one=${parsers[$([ $kind = audio ] && echo 1 || echo 0)]}
        [ "$one" != refused ] || { row+=" refused |" && continue; }
        gst=($(of_gstreamer "$kind" "$one"))
        all=$([ $kind = video ] && echo "$pictures" || echo "$frames")
        # It may leave out the frames of an encoder's delay, which lie before the first picture.
        [ "${gst[0]}" -eq "$all" ] || [ "$kind ${gst[0]}" = "audio $(after_start)" ]
        [ "${gst[0]}" -eq 0 ] && row+=" |" || row+=" ${gst[0]}, ${gst[1]} s |"
    done
    echo "$row"
    [ -z "${TABLE:-}" ] || echo "$row" >>"$TABLE"
    [ -n "${TABLE:-}" ] || grep -qxF -e "$row" "$BATS_TEST_DIRNAME/../docs/receivers.md"
}

# parsed FILE DEMUXER: frames of AAC that GStreamer takes.
parsed() {
    timeout 60 gst-launch-1.0 -v filesrc location="$1" ! "$2" ! aacparse ! fakesink silent=false sync=false \
        >gstreamer 2>&1 || true
    grep -c chain gstreamer || true
}

# How ffmpeg reads all of a file.
whole() {
    case $1 in
    *.mp4) echo "-ignore_editlist 1" ;;
    *) echo "-flags2 +skip_manual" ;;
    esac
}

h264parse="h264parse ! video/x-h264,alignment=au"
merged() { mkvmerge -q -o a.mkv "$@"; }

@test "mp4" { $film $stereo $h264 a.mp4 && receive "MP4, AAC" a.mp4 "$h264parse" aacparse; }
@test "mp4 faststart" {
    $film $stereo $h264 -bf 0 -ar 44100 -movflags +faststart a.mp4
    receive "MP4, no B pictures, index first" a.mp4 "$h264parse" aacparse
}
@test "mp4 slices" { $film $stereo $h264 -slices 4 a.mp4 && receive "MP4, four slices a picture" a.mp4 "$h264parse" aacparse; }
@test "mp4 open gop" {
    $film $stereo $h264 -bf 5 -x264-params open-gop=1:b-pyramid=2 a.mp4
    receive "MP4, open GOP, pyramid of B pictures" a.mp4 "$h264parse" aacparse
}
@test "mp4 surround" { $film $surround $h264 a.mp4 && receive "MP4, AAC of 5.1 channels" a.mp4 "$h264parse" aacparse; }
@test "mp4 own layout" {
    $film -f lavfi -i "aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t):c=3.0(back):d=4" $h264 a.mp4
    receive "MP4, AAC of three channels, one of them behind" a.mp4 "$h264parse" refused
    # GStreamer takes no such ADTS, nor LATM, whoever writes it.
    $ffmpeg -i a.mp4 -map 0:a -c copy audio.mp4
    $GOLT remux -q audio.mp4 audio.ts
    $ffmpeg -i audio.mp4 -c copy adts.ts
    $ffmpeg -i audio.mp4 -c copy -mpegts_flags latm latm.ts
    for kind in audio adts latm; do
        [ "$(parsed $kind.ts tsdemux)" = 0 ]
    done
    [ "$(parsed audio.mp4 qtdemux)" -gt 150 ]
}
@test "mp4 ac3" { $film $surround $h264 -c:a ac3 a.mp4 && receive "MP4, AC-3 of 5.1 channels" a.mp4 "$h264parse" ac3parse; }
@test "mp4 eac3" { $film $stereo $h264 -c:a eac3 a.mp4 && receive "MP4, E-AC-3" a.mp4 "$h264parse" ac3parse; }
@test "mp4 mp3" { $film $stereo $h264 -c:a libmp3lame a.mp4 && receive "MP4, MP3" a.mp4 "$h264parse" mpegaudioparse; }
@test "mp4 large pictures" {
    $ffmpeg $big $stereo $h264 -qp 10 a.mp4
    receive "MP4, pictures above 64 KiB" a.mp4 "$h264parse" aacparse
}
@test "mp4 variable rate" {
    $film $stereo $h264 -vf "select=not(mod(n\,3))+lt(n\,30)" -fps_mode vfr a.mp4
    receive "MP4, variable picture rate" a.mp4 "$h264parse" aacparse
}
# The library takes frames in order of their number, times the mean interval of their track; golt has it take them in
# order of time.
@test "mp4 rate that varies much" {
    local file
    local pictures="-f lavfi -i testsrc2=s=64x48:r=25:d=24" sound="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)/2:d=24"
    $ffmpeg $pictures $sound $h264 -vf "select=lt(n\,300)+not(mod(n\,12))" -fps_mode vfr fast.mp4
    $ffmpeg $pictures $sound $h264 -vf "select=gte(n\,300)+not(mod(n\,12))" -fps_mode vfr slow.mp4
    $ffmpeg $pictures $sound $h264 -af "aselect=lt(t\,5)+gt(t\,13)" gap.mp4
    $ffmpeg -i fast.mp4 -itsoffset 10 -i fast.mp4 -map 0:v -map 1:a -c copy audio.mp4
    $ffmpeg -i slow.mp4 -itsoffset 10 -i slow.mp4 -map 1:v -map 0:a -c copy video.mp4
    for file in *.mp4; do
        run -0 $GOLT remux -q --force $file out.ts
        [ -z "$output" ]
        [ $file = gap.mp4 ] || run -0 $GOLT check out.ts # the jump of its times
        for kind in v a; do
            times $file $kind >$kind.source
            decoded $file $kind $(whole $file) >expected
            decoded out.ts $kind -xerror >got
            [ -s got ]
            diff expected got
        done
        timeout 60 gst-launch-1.0 -v filesrc location=out.ts ! decodebin name=d d. ! video/x-raw ! \
            fakesink name=video silent=false sync=false d. ! audio/x-raw ! fakesink sync=false >gstreamer
        [ "$(grep -c "chain .*(video:sink)" gstreamer)" = "$(wc -l <v.source)" ]
    done
    # What --start and --to name counts from each track's begin, as in the library's order.
    $ffmpeg $pictures $sound $h264 even.mp4
    $ffmpeg -i even.mp4 -itsoffset 10 -i even.mp4 -map 1:v -map 0:a -c copy late.mp4
    run -3 $GOLT remux -q --force --start 15 --to 20 late.mp4 out.ts
    [ "$(times out.ts v | wc -l)" -gt 100 ]
    [ "$(times out.ts a | wc -l)" -gt 200 ]
    # An index that may go on in fragments stays as it is.
    perl -pi -e 's/udta/mvex/' fast.mp4
    run -3 $GOLT remux --force fast.mp4 out.ts
    [[ $output == *"audio and video are up to "*" s apart" ]]
    run -3 $GOLT check out.ts
    [[ $output == "out.ts: 1 finding"*"frames come later than those of the other stream, at most by "* ]]
}
@test "mp4 delayed audio" {
    $film -itsoffset 0.544 $stereo $h264 a.mp4
    receive "MP4, audio that starts 544 ms later" a.mp4 "$h264parse" aacparse
}
@test "mp4 video only" { $film $h264 a.mp4 && receive "MP4, video alone" a.mp4 "$h264parse" -; }
@test "mp4 audio only" { $ffmpeg $stereo a.mp4 && receive "MP4, audio only" a.mp4 - aacparse; }

@test "mkv" { $film $stereo $h264 -c:a aac a.mkv && receive "Matroska by ffmpeg, AAC" a.mkv "$h264parse" aacparse; }
@test "mkv slices" {
    $film $stereo $h264 -c:a libmp3lame -slices 4 a.mkv
    receive "Matroska by ffmpeg, MP3, four slices" a.mkv "$h264parse" mpegaudioparse
}
@test "mkv open gop" {
    $film $surround $h264 -c:a ac3 -bf 5 -x264-params open-gop=1 a.mkv
    receive "Matroska by ffmpeg, AC-3, open GOP" a.mkv "$h264parse" ac3parse
}
@test "mkv film rate" {
    $ffmpeg -f lavfi -i testsrc2=s=176x144:r=24000/1001:d=4 $stereo $h264 -c:a aac a.mkv
    receive "Matroska by ffmpeg, 23.976 pictures a second" a.mkv "$h264parse" aacparse
}
@test "mkvmerge" {
    $film $stereo $h264 -ar 44100 t.mp4
    merged t.mp4
    receive "Matroska by mkvmerge, AAC" a.mkv "$h264parse" aacparse
}
@test "mkvmerge large pictures" {
    $ffmpeg $big $stereo $h264 -qp 10 -slices 4 -c:a ac3 t.mp4
    merged t.mp4
    receive "Matroska by mkvmerge, AC-3, pictures above 64 KiB of four slices" a.mkv "$h264parse" ac3parse
}

@test "mp3" { $ffmpeg $stereo -b:a 128k -write_xing 0 a.mp3 && receive "MP3" a.mp3 - mpegaudioparse; }

@test "ten hours of audio" {
    $ffmpeg -f lavfi -i anoisesrc=d=60:r=8000 -c:a libmp3lame -b:a 8k t.mp3
    $ffmpeg -stream_loop -1 -i t.mp3 -t 36000 -c copy a.mkv
    $GOLT remux -q a.mkv out.ts
    times out.ts a >out
    # 576 samples of 8000 Hz a frame; the file states none of that.
    awk 'NR == 1 { first = $1 } { d = ($1 - first - (NR - 1) * 0.072) * 1000; if (d > 0.02 || d < -0.02) exit 1 }
        END { exit NR < 499000 }' out
}
