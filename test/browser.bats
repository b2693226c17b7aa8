#!/usr/bin/env bats
# A browser as receiver: Chromium plays the stream through Media Source Extensions with the script HLS_JS.
# `./dev browser-test` runs it. GOLT and TABLE are those of receivers.bats; the rows are those of the second table in
# docs/receivers.md.

bats_require_minimum_version 1.5.0

ffmpeg="ffmpeg -v error -nostdin -y"
film="$ffmpeg -f lavfi -i testsrc2=s=176x144:r=25:d=4"
stereo="-f lavfi -i aevalsrc=sin(2800*t)|sin(5000*t)/2:d=4"
surround="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=4"
h264="-c:v libx264 -threads 1 -g 25 -bf 3"

# make NAME FILE [SEEKING]: the stream of a file, and what the browser should find in it.
make() {
    $GOLT remux -q --force "$2" "$2.ts"
    expect "$1" "$2.ts" "$2" "${3:-plays}"
}

# expect NAME FILM FILE SEEKING: a film that has to be as the file is.
expect() {
    names+=("$1")
    films+=("$2")
    seeking+=("$4")
    set -- "$1" "$3"
    pictures+=("$(ffprobe -v error -count_packets -select_streams v -show_entries stream=nb_read_packets \
        -of default=nk=1:nw=1 "$2")")
    audio+=("$(ffprobe -v error -select_streams a -show_entries packet=size \
        -of csv=p=0 "$2" | grep -o "[0-9]*" | paste -sd+ | bc)")
}

@test "plays in Chromium, through hls.js" {
    local names=() films=() pictures=() audio=() seeking=() i found row
    cd "$BATS_TEST_TMPDIR"

    $film $stereo $h264 b.mp4
    make "MP4, B pictures" b.mp4
    $film $stereo $h264 -c:a aac b.mkv
    make "Matroska by ffmpeg, B pictures" b.mkv
    mkvmerge -q -o merged.mkv b.mp4
    make "Matroska by mkvmerge, B pictures" merged.mkv
    $film $stereo $h264 -vf "select=not(mod(n\,3))+lt(n\,30)" -fps_mode vfr variable.mp4
    make "MP4, variable picture rate" variable.mp4
    $film $stereo $h264 -x264-params open-gop=1:b-pyramid=none open.mp4
    make "MP4, open GOP" open.mp4
    $film $stereo $h264 -c:a libmp3lame -slices 4 mp3.mkv
    make "Matroska by ffmpeg, MP3, four slices" mp3.mkv
    $film $surround $h264 surround.mp4
    make "MP4, AAC of 5.1 channels" surround.mp4

    # After a seek the decoder refuses these pictures, whoever has packed them.
    $film $stereo $h264 -x264-params open-gop=1 pyramid.mp4
    make "MP4, open GOP, pyramid" pyramid.mp4 stops
    expect "The same MP4 file itself" pyramid.mp4 pyramid.mp4 stops
    mkdir ts fragments
    $ffmpeg -i pyramid.mp4 -c copy -f hls -hls_list_size 0 ts/index.m3u8
    expect "Its segments by ffmpeg, TS" ts pyramid.mp4 stops
    $ffmpeg -i pyramid.mp4 -c copy -f hls -hls_list_size 0 -hls_segment_type fmp4 fragments/index.m3u8
    expect "Its segments by ffmpeg, MP4" fragments pyramid.mp4 stops
    $GOLT remux -q --start 2 pyramid.mp4 later.ts
    ffmpeg -nostdin -threads 1 -err_detect explode -i later.ts -f null - 2>&1 | grep -q "mmco: unref short failure"

    # Debian's, which has Selenium.
    /usr/bin/python3 "$BATS_TEST_DIRNAME/browser.py" "$HLS_JS" "${films[@]}" >results
    cat results
    [ "$(wc -l <results)" -eq "${#names[@]}" ]
    for i in "${!names[@]}"; do
        found=($(sed -n "$((i + 1))p" results))
        row="| ${names[i]} | ${found[1]} | all | ${found[3]} | ${found[4]} | ${found[6]} |"
        echo "$row"
        [ "${found[1]}" -eq "${pictures[i]}" ]
        [ "${found[2]}" -ge $((audio[i] * 98 / 100)) ]
        [ "${found[3]}" -le 100 ]
        [ "${found[*]:4}" = "0 - ${seeking[i]}" ]
        [ -z "${TABLE:-}" ] || echo "$row" >>"$TABLE"
        [ -n "${TABLE:-}" ] || grep -qxF -e "$row" "$BATS_TEST_DIRNAME/../docs/receivers.md"
    done
}
