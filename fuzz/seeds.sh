#!/usr/bin/env bash
# seeds.sh MAKE_SEEDS DIR: seeds of the fuzz targets in DIR/TARGET, built by the program make_seeds, and out of
# files of a quarter of a second that ffmpeg and mkvmerge write.
set -euo pipefail
make_seeds=$1 dir=$2
real=$(mktemp -d)
trap 'rm -rf "$real"' EXIT

# make OUT ARGS...: ARGS are ffmpeg's for the output.
make() {
    local out=$1
    shift
    ffmpeg -v error -nostdin -y \
        -f lavfi -i "testsrc2=size=64x48:rate=25:duration=0.4" \
        -f lavfi -i "aevalsrc=sin(2763*t)/4:sample_rate=32000:duration=0.4" \
        -threads 1 -g 4 -bf 2 -pix_fmt yuv420p -fflags +bitexact -flags:v +bitexact -flags:a +bitexact \
        "$@" "$real/$out"
}

make avc_aac.mp4 -c:v libx264 -crf 40 -c:a aac -b:a 24k
make faststart.mp4 -c:v libx264 -crf 40 -c:a ac3 -b:a 32k -movflags +faststart
make avc_aac.mkv -c:v libx264 -crf 40 -c:a aac -b:a 24k -cluster_time_limit 100
make avc_ac3.mkv -c:v libx264 -crf 40 -c:a ac3 -b:a 32k
make avc_aac.m2ts -c:v libx264 -crf 40 -c:a aac -b:a 24k -f mpegts -mpegts_m2ts_mode 1
make avc_aac.ts -c:v libx264 -crf 40 -c:a aac -b:a 24k
make constant_rate.ts -c:v mpeg2video -q:v 30 -c:a mp2 -b:a 32k -muxrate 200k
make audio.mp3 -vn -c:a libmp3lame -b:a 32k
make audio.mp4 -vn -c:a libmp3lame -b:a 32k
mkvmerge -q --deterministic 1 --cluster-length 120ms -o "$real/merged.mkv" "$real/avc_aac.mp4"
"$make_seeds" "$dir" "$real"/*
