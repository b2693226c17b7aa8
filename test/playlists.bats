#!/usr/bin/env bats
# What ffmpeg plays of the segments of golt hls is what it plays of the file, frame by frame, for files of every kind.
# It takes minutes: ./dev serve-test runs it, and hls.bats a selection.

bats_require_minimum_version 1.5.0
load support/films

mono="-f lavfi -i aevalsrc=sin(2800*t)*sin(3*t):d=20"
stereo="-f lavfi -i aevalsrc=sin(2800*t)*sin(3*t)|sin(5000*t)/2:d=20"
surround="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=20"

setup() { cd "$BATS_TEST_TMPDIR"; }

# film FILE RATE AUDIO OPTION...: 20 s of pictures, with audio.
film() {
    local file=$1 rate=$2 audio=$3
    shift 3
    $ffmpeg -f lavfi -i "testsrc2=s=96x64:r=$rate:d=20" $audio $h264 -preset veryfast -g 50 -ar 48000 "$@" "$file"
}

make_films() {
    film plain.mp4 25 "$stereo" -bf 0 -ar 44100
    film first.mp4 25 "$stereo" -bf 1 -movflags +faststart
    film pyramid.mp4 25 "$surround" -bf 3 -x264-params b-pyramid=normal
    film two.mp4 24000/1001 "$mono" -bf 2
    film ntsc.mp4 30000/1001 "$stereo" -c:a ac3
    film slices.mp4 50 "$stereo" -slices 4 -c:a eac3
    film sixty.mp4 60 "$stereo" -c:a libmp3lame
    film open.mp4 25 "$stereo" -bf 3 -x264-params open-gop=1:keyint=50:min-keyint=25
    film varied.mp4 30 "$stereo" -vf "select='gt(random(1),0.4)'" -fps_mode vfr -g 40
    $ffmpeg -ss 3.1 -i first.mp4 -c copy edits.mp4
    $ffmpeg -itsoffset 0.7 -i plain.mp4 -i first.mp4 -map 0:a -map 1:v -c copy late.mp4
}

@test "MP4" {
    make_films
    for file in *.mp4; do plays "$file"; done
}

@test "Matroska" {
    make_films
    rm slices.mp4 # E-AC-3, which the library takes of MP4 alone
    for file in *.mp4; do
        name=${file%.mp4}
        $ffmpeg -i "$file" -c copy "$name.ffmpeg.mkv"
        $ffmpeg -i "$file" -c copy -live 1 -f matroska - | cat >"$name.live.mkv"
        mkvmerge -q -o "$name.merged.mkv" "$file"
        mkvmerge -q --no-cues -o "$name.uncued.mkv" "$file"
    done
    for file in *.mkv; do plays "$file"; done
}

@test "audio alone" {
    $ffmpeg $stereo -ar 44100 -c:a aac aac.m4a
    $ffmpeg $surround -c:a ac3 -f mp4 ac3.m4a
    $ffmpeg $stereo -ar 44100 -c:a libmp3lame -f mp4 mp3.m4a
    for file in *.m4a; do
        $ffmpeg -i "$file" -c copy "${file%.m4a}.ffmpeg.mka"
        mkvmerge -q -o "${file%.m4a}.merged.mka" "$file"
    done
    for file in *.m4a *.mka; do plays "$file"; done
}

@test "MP3" {
    for rate in 32000 44100 48000; do
        for bits in 32 64 128 320; do
            $ffmpeg $stereo -ar $rate -c:a libmp3lame -b:a ${bits}k $rate.$bits.mp3
            plays $rate.$bits.mp3 1
        done
        $ffmpeg $mono -ar $rate -c:a libmp3lame -q:a 5 variable$rate.mp3
        plays variable$rate.mp3 1
        $ffmpeg $stereo -ar $rate -c:a libmp3lame -b:a 96k -write_xing 0 -id3v2_version 0 bare$rate.mp3
        plays bare$rate.mp3
        $ffmpeg $stereo -ar $rate -c:a mp2 -f mp2 layer2.mp3
        plays layer2.mp3
    done
}

@test "M2TS" {
    film ac3.m2ts 25 "$stereo" -c:a ac3 -mpegts_m2ts_mode 1
    film aac.m2ts 30000/1001 "$surround" -bf 2 -mpegts_m2ts_mode 1
    for file in *.m2ts; do plays "$file"; done
}
