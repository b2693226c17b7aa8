#!/usr/bin/env bats
# golt check, and what golt info and frames say of transport streams, on files of real encoders: a sound file gives no
# finding, whoever wrote it, and neither does what golt makes of it; a broken one gives the finding that is meant.

bats_require_minimum_version 1.5.0

ffmpeg="ffmpeg -v error -nostdin -y"
film="-f lavfi -i testsrc2=s=64x48:r=25:d=2"
stereo="-f lavfi -i aevalsrc=sin(2800*t)|sin(5000*t)/2:d=2"
surround="-f lavfi -i aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=2"
h264="-c:v libx264 -threads 1 -preset ultrafast -pix_fmt yuv420p -g 25"

setup_file() {
    cd "$BATS_FILE_TMPDIR"
    $ffmpeg $film $stereo $h264 -bf 3 -c:a ac3 film.mp4
    $ffmpeg -i film.mp4 -c copy -mpegts_m2ts_mode 1 film.m2ts
    $ffmpeg -i film.mp4 -c copy film.ts
}

setup() {
    cd "$BATS_TEST_TMPDIR"
    ln -s "$BATS_FILE_TMPDIR"/* .
}

# is EXPECTED WORDS...: the words are what was expected.
is() {
    echo "$2"
    [ "$1" = "$2" ]
}

# finds FILE CODE...: golt check finds just these.
finds() {
    local file=$1 status=$(($# > 1 ? 3 : 0))
    shift
    run -$status --separate-stderr $GOLT check "$file" --json
    is "$file: $*" "$file: $(jq -r '[.findings[].code] | sort | unique | join(" ")' <<<"$output")"
    is "$([ $# -eq 0 ] && echo true || echo false)" "$(jq .clean <<<"$output")"
}

@test "finds nothing in sound files" {
    $ffmpeg $film $stereo $h264 -bf 0 -ar 44100 -movflags +faststart faststart.mp4
    $ffmpeg $film $surround $h264 -bf 3 -slices 4 surround.mp4
    $ffmpeg $film $surround $h264 -bf 5 -x264-params open-gop=1:b-pyramid=2 -c:a eac3 open.mp4
    $ffmpeg $film $stereo $h264 -bf 3 -vf "select=not(mod(n\,2))+lt(n\,15)" -fps_mode vfr -c:a libmp3lame vfr.mp4
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=2:d=4 -itsoffset 0.544 $stereo $h264 -bf 3 slow.mp4
    $ffmpeg -f lavfi -i nullsrc=s=640x480:r=5:d=1,geq='random(1)*255:128' $h264 -qp 10 large.mp4
    $ffmpeg -i surround.mp4 -vn -c copy audio.m4a
    local file
    for file in film surround open; do $ffmpeg -i $file.mp4 -c copy $file.ffmpeg.ts; done
    $ffmpeg -i film.mp4 -c copy -muxrate 2M constant.ffmpeg.ts
    $ffmpeg -i film.mp4 -c:v mpeg2video -bf 2 -c:a mp2 mpeg2.ffmpeg.ts
    perl -0777 -ne 'print map { $_ . "\0" x 16 } unpack "(a188)*"' film.ts >checked.ffmpeg.ts
    for file in film surround vfr; do $ffmpeg -i $file.mp4 -c copy $file.mkv; done
    for file in film surround vfr; do mkvmerge -q -o $file.merged.mkv $file.mp4; done
    mkvmerge -q -D -o audio.mka film.mp4
    $ffmpeg $stereo -write_xing 0 audio.mp3
    $ffmpeg $stereo -q:a 4 vbr.mp3
    for file in *.mp4 *.m4a *.mk? *.mp3; do $GOLT remux -q "$file" "$file.ts"; done
    run -0 $GOLT check *
    is "$(ls | wc -l)" "$(grep -c ': nothing found$' <<<"$output")"
    is 42 "$(ls | wc -l)"
    [[ $output == *$'large.mp4: nothing found\n'*'by golt: all times are 1.000 s later than in the file'*'by golt: 5 pictures'* ]]
    [[ $output == *'constant.ffmpeg.ts: nothing found'*'rate: 2000.0 kbit/s, constant, PCR jitter 0 ns'* ]]
}

@test "finds what a receiver would trip over" {
    # The library alone: no decoding times, the clock follows the pictures.
    $GOLT remux -q --as-is film.mp4 bare.ts
    finds bare.ts clock-backward clock-late dts-backward key-parameter-sets late no-delimiter no-random-access
    $ffmpeg $film $h264 -bsf:v filter_units=remove_types=7-8 bare.m2ts
    finds bare.m2ts no-parameter-sets
    $ffmpeg -i film.mp4 -c copy -bsf:a "setts=ts=TS+gte(N\\,30)*230000" -mpegts_m2ts_mode 1 gap.m2ts
    finds gap.m2ts late time-jump  # the muxer holds audio back until a packet is full
    $ffmpeg -i film.mp4 -c copy -output_ts_offset 100 late.ts
    cat late.ts film.ts >back.ts
    finds back.ts clock-backward continuity dts-backward time-backward
    # First all that isn't audio, which has the PID 0x1100, then the audio.
    perl -0777 -ne 'for my $f (0, 1) { for (unpack "(a192)*") {
        print if $f == ((unpack("x5n", $_) & 0x1FFF) == 0x1100) } }' film.m2ts >apart.m2ts
    finds apart.m2ts late
    # The file ends after the first packet of a PES packet of audio.
    perl -0777 -ne 'for (unpack "(a192)*") {
        print; last if (unpack("x5n", $_) & 0x5FFF) == 0x5100 && ++$starts == 9 }' film.m2ts >cut.m2ts
    finds cut.m2ts cut-frame pes-length
    # What a file causes itself, and what the library does: it interleaves MP4 in an order of its own. Where fragments
    # may follow, the file stays as it is.
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=25:d=20 -f lavfi -i sine=d=20 $h264 -vf "select=not(mod(n\,25))+lt(n\,250)" \
        -fps_mode vfr vfr.mp4
    finds vfr.mp4
    perl -pi -e 's/udta/mvex/' vfr.mp4
    run -0 $GOLT check vfr.mp4
    [[ $output == *'by golt: video: '*' times frames come later than those of the other stream'* ]]
    $ffmpeg -i film.mp4 -vn -c copy -bsf:a "setts=ts=TS+gte(N\\,30)*9600" gap.mp4
    run -3 $GOLT check gap.mp4
    [[ $output == *'gap.mp4: 1 finding'*'  sound: once the time jumps, at most by 0.2'*' s; first at 00:00:0'*', in packet '* ]]
    # Several: the worst counts.
    run -3 $GOLT check film.ts bare.ts
    run -1 $GOLT check none.ts film.ts bare.ts
    [[ $output == *'film.ts: nothing found'*'bare.ts: 7 findings'* ]]
    run -1 $GOLT check --format ts film.mp4
    is 'golt: film.mp4: no transport packets found' "$output"
}

@test "describes transport streams and lists their frames" {
    $ffmpeg $film $stereo $stereo $h264 -map 0 -map 1 -map 2 -c:a aac -program st=0:st=1 -program st=2 two.ts
    is '["ts",188,1,1,[["video","h264",2],["sound","aac",null]]]' "$($GOLT info two.ts --json | jq -c '[.format,
        .program.packet_size, .program.number, .program.others,
        [.program.streams[] | [.kind, .codec, .key_pictures]]]')"
    is '[25000,"ac3",44100,2,80,1000]' "$($GOLT info film.ts --json | jq -c '[.video.frames_per_1000_s, .sound.codec,
        .sound.sample_rate, .sound.channels, .program.clock.interval_ms.max, .program.streams[0].key_interval_ms_max]')"
    run -0 $GOLT info two.ts
    [[ $output == *'program     1, PMT on PID 0x1000; 1 other program left out'* ]]
    [[ $output == *'PID 0x0100  video, H.264, 25.000 frames/s, 50 frames, '*', 2 key pictures, at most 1.000 s apart'* ]]
    run -0 $GOLT info film.ts film.m2ts
    [[ $output == *'film.ts: transport stream, 00:00:02'*'; video: H.264, PID 0x100; audio: AC-3, PID 0x101'* ]]

    # Those that ffprobe finds.
    $GOLT frames film.ts --csv | awk -F, '$2 == "video" { printf "%.6f,%.6f,%s,%s,%s\n", $5 / 1000, $13 / 1000, $6, $15, $14 }' >frames
    ffprobe -v error -select_streams v -show_entries packet=pts_time,dts_time,flags,pos,size -of csv=p=0 film.ts |
        sed -n 's/,K.*/,1/p; s/,__.*/,0/p' | diff - frames
    is '{"pts":1480,"dts":1400,"key":true,"offset":564}' "$($GOLT frames film.ts --json --count 1 |
        jq -c 'select(.key) | {pts: .time_ms, dts: .dts_ms, key, offset}')"
    run -0 $GOLT frames film.ts --count 2
    is '  number stream         time     decoding key    bytes     offset  content' "${lines[0]}"
    run -0 $GOLT frames two.ts
    [[ $output == *'two.ts: program 1 alone; 1 other program left out'* ]]
    $ffmpeg $film -c:v mpeg2video -bf 2 mpeg2.ts
    [[ $($GOLT frames mpeg2.ts --count 1) == *'  sequence extension group picture extension'* ]]
    run -2 $GOLT frames film.ts --start 1
}
