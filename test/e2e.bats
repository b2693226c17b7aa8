#!/usr/bin/env bats
# The host program as a user runs it: sources made by real encoders and muxers, remuxed, judged by
# the checker of transport streams, and decoded again. What comes out decodes to the frames of the
# source. GOLT and JUDGE are the programs, with what a foreign machine needs before them.

bats_require_minimum_version 1.5.0

# All channels of the audio differ, so that none can be mistaken for another. One thread: with several the
# encoder cuts pictures into slices and rates them by chance.
ffmpeg="ffmpeg -v error -nostdin -y -fflags +bitexact -flags +bitexact"
picture="$ffmpeg -f lavfi -i testsrc2=s=176x144:r=25:d=2"
noise="$ffmpeg -f lavfi -i nullsrc=s=640x480:r=5:d=1,geq=random(1)*255:128"
mono="-f lavfi -i aevalsrc=sin(2800*t):d=2"
stereo="-f lavfi -i aevalsrc=sin(2800*t)|sin(5000*t)/2:d=2"
surround="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=2"
h264="-c:v libx264 -threads 1 -g 15 -bf 3"
movie="$picture $stereo $h264"

# ffmpeg's Matroska files don't state how long an audio frame lasts: all have one time.
no_audio_clock=untimed

setup() { cd "$BATS_TEST_TMPDIR"; }

# How the source is decoded whole: no edit list and no trimming takes the encoder's delay away.
whole() {
    case $1 in
    *.mp4) echo "-ignore_editlist 1" ;;
    *.ts) ;;
    *) echo "-flags2 +skip_manual" ;;
    esac
}

# frames FILE -an|-vn: size and MD5 of each decoded frame of the kind that is left. None is repeated
# or dropped to fit a rate.
frames() {
    ffmpeg -v error -nostdin $(whole "$1") -i "$1" "$2" -fps_mode passthrough -f framemd5 - \
        2>/dev/null | grep -v '^#' | cut -d, -f5,6 || true
}

# Puts a number of channels into the MP4's sample entry, where ffmpeg writes 2 whatever there is.
set_channels() {
    local entry
    entry=$(grep -obaF mp4a a.mp4 | head -n 1 | cut -d: -f1)
    printf "\\x0$1" | dd of=a.mp4 bs=1 seek=$((entry + 21)) conv=notrunc status=none
}

# remuxed FILE STATUS [OPTION...]: runs the program and looks at what comes out.
remuxed() {
    local file=$1 expected=$2 status=0
    shift 2
    $GOLT remux -q --as-is --force "$@" "$file" out.ts 2>said || status=$?
    cat said
    [ "$status" -eq "$expected" ]
    [ "$status" -ne 0 ] || [ ! -s said ]
    $JUDGE times 0x100 out.ts >video_times
    $JUDGE times 0x101 out.ts >audio_times
    [ -z "$(ffprobe -v error out.ts 2>&1)" ]
}

# Each packet of the source has its PES packet, within a millisecond.
same_times() { # FILE a|v TIMES
    ffprobe -v error $(whole "$1") -show_entries packet=pts_time -of csv=p=0 \
        -select_streams "$2" "$1" | grep . >expected_times || true
    [ "$(wc -l <expected_times)" -eq "$(wc -l <"$3")" ]
    paste expected_times "$3" | awk '{ d = $1 * 1000 - $2; if (d * d > 1.01) { print; exit 1 } }'
}

# same_frames FILE -an|-vn TIMES SKIPPED: something is decoded where there are packets, and the same.
same_frames() {
    frames "$1" "$2" >expected_frames
    frames out.ts "$2" | tail -n +$(($4 + 1)) >out_frames
    diff expected_frames out_frames
    [ -s out_frames ] || [ ! -s "$3" ]
}

# same FILE [untimed|'' [INFO_FRAMES]]: the output decodes to the source. INFO_FRAMES: audio frames of the
# encoder's own at the start, which ffmpeg leaves out.
same() {
    local file=$1 untimed=${2:-} info_frames=${3:-0}
    remuxed "$file" 0
    same_times "$file" v video_times
    # ffmpeg counts an MP3 file's times from after the encoder's delay.
    [ -n "$untimed" ] || [[ $file = *.mp3 ]] || same_times "$file" a audio_times
    [ $(($(wc -l <video_times) + $(wc -l <audio_times))) -gt 40 ]
    same_frames "$file" -an video_times 0
    same_frames "$file" -vn audio_times "$info_frames"
    # Straight from the host, without the read-ahead, it is the same stream.
    $JUDGE uncached "${file##*.}" "$file" >/dev/null
    cmp uncached.ts out.ts
}

# mkvmerge's files, from ffmpeg's audio of a kind.
merged() { # CODEC [OPTION...]
    local codec=$1
    shift
    $movie -c:a "$codec" t.mp4
    mkvmerge -q -o a.mkv "$@" t.mp4
}

@test "mp4 aac 44100" { $movie -bf 0 -ar 44100 a.mp4 && same a.mp4; }
@test "mp4 aac 48000 faststart" { $movie -ar 48000 -movflags +faststart a.mp4 && same a.mp4; }
@test "mp4 slices" { $movie -slices 4 -ar 22050 a.mp4 && same a.mp4; }
@test "mp4 aac mono" { $picture $mono $h264 a.mp4 && set_channels 1 && same a.mp4; }
@test "mp4 aac surround" { $picture $surround $h264 a.mp4 && set_channels 6 && same a.mp4; }
@test "mp4 mp3" { $movie -c:a libmp3lame a.mp4 && same a.mp4; }
@test "mp4 ac3" { $movie -c:a ac3 -movflags +faststart a.mp4 && same a.mp4; }
@test "mp4 ac3 surround" { $picture $surround $h264 -c:a ac3 a.mp4 && same a.mp4; }
@test "mp4 eac3" { $movie -c:a eac3 a.mp4 && same a.mp4; }
@test "mp4 pictures above 64 KiB" { $noise $stereo $h264 -qp 10 a.mp4 && same a.mp4; }
@test "mp4 video only" { $picture $h264 a.mp4 && same a.mp4; }
@test "mp4 audio only" { $ffmpeg $stereo a.mp4 && same a.mp4; }

# beside FIRST SECOND: a second stream of the same kind, which can't be carried, changes nothing.
beside() {
    $picture $stereo $1 a.mp4
    remuxed a.mp4 0
    mv out.ts alone.ts
    $picture $stereo $1 $2 a.mp4
    [ "$(ffprobe -v error -show_entries stream=index -of csv=p=0 a.mp4 | wc -l)" -eq 2 ]
    remuxed a.mp4 0
    cmp out.ts alone.ts
    [ -s out.ts ]
}
@test "mp4 alac beside aac" { beside "-map 1 -c:a:0 aac" "-map 1 -c:a:1 alac"; }
@test "mp4 cover beside h264" { beside "-map 0 $h264" "-map 0 -c:v:1 mjpeg -bf:v:1 0 -pix_fmt:v:1 yuvj420p"; }
@test "mp4 hevc beside h264" { beside "-map 0 $h264" "-map 0 -c:v:1 libx265 -x265-params log-level=0"; }

@test "mkv aac" { $movie -c:a aac a.mkv && same a.mkv $no_audio_clock; }
@test "mkv mp3" { $movie -c:a libmp3lame a.mkv && same a.mkv $no_audio_clock; }
@test "mkv cues in front" { $movie -c:a ac3 -cues_to_front 1 a.mkv && same a.mkv $no_audio_clock; }
@test "mkvmerge aac" { merged aac && same a.mkv; }
@test "mkvmerge mp3 xiph lacing" { merged libmp3lame --engage lacing_xiph && same a.mkv; }
@test "mkvmerge ac3 block groups" { merged ac3 --engage no_simpleblocks && same a.mkv; }
@test "mkvmerge audio only" {
    $ffmpeg $stereo -c:a ac3 t.ac3
    mkvmerge -q -o a.mka --timestamp-scale 1000000 --engage lacing_ebml t.ac3
    same a.mka
}

@test "mp3 constant rate" { $ffmpeg $stereo -b:a 128k a.mp3 && same a.mp3 '' 1; }
@test "mp3 variable rate" { $ffmpeg $mono -q:a 4 -ar 48000 a.mp3 && same a.mp3 '' 1; }
@test "mp3 bare frames" { $ffmpeg $stereo -write_xing 0 -id3v2_version 0 a.mp3 && same a.mp3; }
@test "mp3 layer two" { $ffmpeg $stereo -c:a mp2 -f mp2 a.mp3 && same a.mp3; }

@test "m2ts packets pass as they are" {
    $movie -c:a ac3 -mpegts_m2ts_mode 1 a.m2ts
    remuxed a.m2ts 0
    perl -e 'local $/ = \192; while (<>) { print substr $_, 4 }' a.m2ts | cmp - out.ts
}

@test "mkv starts at an independent picture" {
    merged ac3
    for start in 700ms 1000ms 1.799; do
        remuxed a.mkv 0 --start $start
        [ -z "$(ffmpeg -v error -nostdin -i out.ts -f null - 2>&1)" ]
        [ "$(frames out.ts -an | wc -l)" -eq "$(wc -l <video_times)" ]
        [ "$(wc -l <video_times)" -lt 40 ]
    done
}

@test "mp3 seeks land within a frame" {
    $ffmpeg -f lavfi -i anoisesrc=d=60 -b:a 128k a.mp3
    $JUDGE seeks mp3 a.mp3 | grep '^landed ' >landed
    cat landed
    [ "$(wc -l <landed)" -eq 10 ]
    awk '$2 < -27 || $2 > 27 { exit 1 }' landed
}
