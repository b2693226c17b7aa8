#!/usr/bin/env bash
# Makes the files of this folder with ffmpeg: a test picture and two tones, H.264 with B-frames.
# One thread and no version strings, so that the same ffmpeg makes the same bytes again.
set -euo pipefail
cd "$(dirname "$0")"

# make OUT SECONDS ARGS...: ARGS are ffmpeg's for the output.
make() {
    local out=$1 seconds=$2
    shift 2
    ffmpeg -v error -nostdin -y \
        -f lavfi -i "testsrc2=size=320x240:rate=25:duration=$seconds" \
        -f lavfi -i "aevalsrc=sin(2763*t)/4|sin(4145*t)/4:sample_rate=48000:duration=$seconds" \
        -c:v libx264 -threads 1 -preset slow -bf 2 -g 50 -pix_fmt yuv420p \
        -fflags +bitexact -flags:v +bitexact -flags:a +bitexact "$@" "$out"
}

make h264_aac.mp4 4 -crf 30 -c:a aac -b:a 96k
make short.m2ts 1 -crf 34 -c:a ac3 -b:a 96k -f mpegts -mpegts_m2ts_mode 1
