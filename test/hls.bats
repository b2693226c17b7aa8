#!/usr/bin/env bats
# golt hls: its segments together are the stream of golt remux, frame by frame and tick by tick, and each of them can
# be the first one that a player gets.

bats_require_minimum_version 1.5.0

load support/films

setup() { cd "$BATS_TEST_TMPDIR"; }

# film OUT OPTION...: 20 s of pictures, whose groups are 2 s long, and audio.
film() {
    local out=$1
    shift
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=25:d=20 -f lavfi -i "sine=sample_rate=44100:duration=20" \
        $h264 -g 50 -bf 2 -c:a aac -b:a 64k "$@" "$out"
}

# packets FILE: time of presentation and of decoding, and bytes, of each frame of video, then of audio.
packets() {
    ffprobe -v error -show_entries packet=codec_type,pts,dts,data_hash -show_data_hash md5 -of compact=p=0:nk=1 "$1" |
        sed -z 's/|\n|/|/g' | sort -s -t '|' -k1,1
}

# cut_film FILE SEGMENTS: what is above, of a file; SEGMENTS: how many there are.
cut_film() {
    local file=$1 number
    echo "$file"
    rm -rf out
    $GOLT hls -q "$file" out
    [ "$(find out -name '*.ts' | wc -l)" = "$2" ]
    $GOLT remux -q --force "$file" whole.ts || [ $? = "${may_end_with:-0}" ]
    for ((number = 0; number < $2; ++number)); do cat "out/$number.ts"; done >joined.ts
    packets whole.ts >expected
    [ "$(wc -l <expected)" -gt 100 ]
    packets joined.ts | diff expected - | head -n 4
    packets joined.ts | cmp expected -
    # Counters go on, the clock doesn't run back, the tables are right.
    $JUDGE times 0x100 whole.ts 2>expected >/dev/null || true
    $JUDGE times 0x100 joined.ts 2>&1 >/dev/null | diff expected -
    "$BATS_TEST_DIRNAME/playlist_judge.py" out
}

@test "segments of MP4 are the stream" {
    film movie.mp4
    cut_film movie.mp4 4
    grep -q '^#EXT-X-INDEPENDENT-SEGMENTS$' out/index.m3u8
    grep -q ',CODECS="avc1.42c00a,mp4a.40.2",RESOLUTION=64x48,FRAME-RATE=25.000$\|avc1.4d400a,mp4a.40.2' out/master.m3u8
    # Pictures are decoded before the first one is shown, and audio before the film begins.
    $ffmpeg -ss 3.1 -i movie.mp4 -c copy edits.mp4
    cut_film edits.mp4 3
    # Few pictures a second in one half of the film, and audio that comes late: in order of time.
    film fast.mp4 -vf "select=lt(n\,250)+not(mod(n\,20))" -fps_mode vfr
    cut_film fast.mp4 3
    film slow.mp4 -vf "select=gte(n\,250)+not(mod(n\,20))" -fps_mode vfr
    cut_film slow.mp4 3
    $ffmpeg -i fast.mp4 -itsoffset 7 -i slow.mp4 -map 0:v -map 1:a -c copy late.mp4
    cut_film late.mp4 3
    # 1001 ticks of 30,000; a last group that is longer.
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=30000/1001:d=21 $h264 -g 45 -bf 3 video.mp4
    cut_film video.mp4 4
    # Each picture is a key picture; ten of them a second.
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=10:d=20 $h264 -g 1 intra.mp4
    cut_film intra.mp4 4
    # A slide show: nearly all of it is clock and tables.
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=1/3:d=360 $h264 -g 2 slides.mp4
    cut_film slides.mp4 60
    $ffmpeg -i movie.mp4 -vn -c copy audio.m4a
    cut_film audio.m4a 4
    $ffmpeg -i movie.mp4 -vn -c:a mp2 layer2.mp4
    cut_film layer2.mp4 4
    grep -q 'CODECS="mp4a.40.33"$' out/master.m3u8
}

rate_of() { sed -n 's/.*[:,]BANDWIDTH=\([0-9]*\).*/\1/p' "$1/master.m3u8"; }

# Files whose tables other muxers have written. edited NAME SEGMENTS EDIT...: of movie.mp4; or of audio.m4a.
edited() {
    local name=$1 segments=$2
    shift 2
    "$BATS_TEST_DIRNAME/support/mp4_edit.py" "${source:-movie.mp4}" "$name.mp4" "$@"
    # Some are badly interleaved.
    may_end_with=3 cut_film "$name.mp4" "$segments"
}

@test "segments of MP4 are the stream, whatever its tables state" {
    film movie.mp4 -video_track_timescale 12800
    # An edit list that skips more than an hour.
    edited skipped 4 vide elst 0:47360000 soun elst 0:163170000
    # The library would have audio of more than ten seconds first, and then pictures from two seconds before it on.
    $ffmpeg -itsoffset -12 -i movie.mp4 -i movie.mp4 -map 1:v -map 0:a -c copy apart.mp4
    source=apart.mp4 edited uncounted 4 vide elst 0:25600 soun elst 0:0 soun stts 100:1024,1:1025,:1024 soun mdhd 0
    # No durations of samples: they are those of the tracks by the number of samples.
    film plain.mp4 -bf 0 -video_track_timescale 12800
    source=plain.mp4 edited untimed 4 vide stts :0 vide mdhd 256000 soun stts :0 soun mdhd 883712
    # Audio alone with gaps of which one is off the grid; with a last frame that is long; with frames of two lengths.
    $ffmpeg -i movie.mp4 -vn -c copy audio.m4a
    source=audio.m4a edited gaps 5 soun stts 100:1024,1:4311024,600:1024,1:1174,:1024
    source=audio.m4a edited last 4 soun stts 500:1024,1:90000,361:1024,:882000
    source=audio.m4a edited halves 18 soun stts 400:10240,:1024
}

@test "segments of Matroska are the stream" {
    film movie.mp4
    $ffmpeg -i movie.mp4 -c copy ffmpeg.mkv
    mkvmerge -q -o merged.mkv movie.mp4
    mkvmerge -q --no-cues -o uncued.mkv movie.mp4
    $ffmpeg -i movie.mp4 -c copy -f matroska - | cat >piped.mkv
    cut_film ffmpeg.mkv 4
    cut_film merged.mkv 4
    cut_film uncued.mkv 4
    cut_film piped.mkv 4
    # Audio that comes late, and pictures that are shown before the key picture that they follow.
    film open.mp4 -x264-params open-gop=1:keyint=60:min-keyint=25 -preset veryfast
    $ffmpeg -itsoffset 1.5 -i movie.mp4 -i open.mp4 -map 0:a -map 1:v -c copy open.mkv
    cut_film open.mkv 4
    run ! grep INDEPENDENT out/index.m3u8
    # With a clock by samples.
    $ffmpeg -i movie.mp4 -vn -c copy audio.m4a
    mkvmerge -q -o merged.mka audio.m4a
    cut_film merged.mka 4
    # With a gap, which the library passes over.
    "$BATS_TEST_DIRNAME/support/mp4_edit.py" audio.m4a gap.mp4 soun stts 300:1024,1:309724,:1024
    $ffmpeg -ignore_editlist 1 -i gap.mp4 -c copy gap.mkv
    mkvmerge -q -o gap.mka gap.mp4
    may_end_with=3 cut_film gap.mkv 4
    may_end_with=3 cut_film gap.mka 4
}

# With a clock by samples, which the library takes for milliseconds: its times start again after 33 minutes.
@test "segments of long audio in Matroska are the stream" {
    $ffmpeg -f lavfi -i anoisesrc=r=48000:a=0.1:d=60 -ac 1 -c:a ac3 -b:a 32k minute.ac3
    for _ in {1..36}; do cat minute.ac3; done >long.ac3
    mkvmerge -q -o long.mka long.ac3
    cut_film long.mka 360
    # It begins late.
    cat minute.ac3 minute.ac3 >short.ac3
    mkvmerge -q --sync 0:100000 -o late.mka short.ac3
    plays late.mka
}

@test "segments of MP3 and M2TS are the stream" {
    $ffmpeg -f lavfi -i anoisesrc=r=44100:a=0.1:d=20 -c:a libmp3lame -b:a 64k -metadata title=t cbr.mp3
    $ffmpeg -f lavfi -i anoisesrc=r=48000:a=0.1:d=20 -c:a libmp3lame -q:a 7 -write_xing 0 vbr.mp3
    cut_film cbr.mp3 4
    cut_film vbr.mp3 4

    # Of M2TS the packets stay as they are.
    film movie.m2ts -c:a ac3 -mpegts_m2ts_mode 1
    $GOLT hls -q movie.m2ts packets
    $GOLT remux -q --force movie.m2ts whole.ts
    cat packets/{0,1,2,3}.ts >joined.ts
    packets whole.ts >expected
    packets joined.ts | diff expected -
    [ -z "$($JUDGE times 0x100 joined.ts 2>&1 >judged)" ]
    [ "$(stat -c %s joined.ts)" -eq $(($(stat -c %s whole.ts) + 4 * 2 * 188)) ]
    grep -q 'CODECS="avc1.*,ac-3"' packets/master.m3u8
}

@test "a player gets the pictures and the audio of the source" {
    film movie.mp4 -x264-params open-gop=1:keyint=60:min-keyint=25 -preset veryfast -c:a ac3
    $ffmpeg -ss 3.1 -i movie.mp4 -c copy edits.mp4
    $ffmpeg -itsoffset 0.7 -i movie.mp4 -i movie.mp4 -map 0:a -map 1:v -c copy -live 1 late.mkv
    mkvmerge -q -o movie.mka -D movie.mp4
    $ffmpeg -i movie.mp4 -c:a libmp3lame -q:a 5 movie.mp3
    plays edits.mp4
    plays late.mkv
    plays movie.mka
    plays movie.mp3 1
}

@test "what is in the way or can't be played is reported" {
    film movie.mp4
    $GOLT hls movie.mp4 out 2>said
    grep -q '^out: 4 segments, [0-9]* bytes, 00:00:20.0' said
    run -1 $GOLT hls movie.mp4 out
    [[ $output == *"out: isn't empty; --force replaces"* ]]
    run -0 $GOLT hls --force movie.mp4 out
    # A folder that is ended early has no playlists, not even those of an older film.
    rm out/2.ts
    mkdir out/2.ts
    run -1 $GOLT hls --force movie.mp4 out
    [ "$(ls out)" = $'0.ts\n1.ts\n2.ts\n3.ts' ]
    run -1 $GOLT hls movie.mp4 movie.mp4
    run -1 $GOLT hls --format mkv movie.mp4 other
    $ffmpeg -i movie.mp4 -c:v mpeg4 -an visual.mp4
    run -1 $GOLT hls visual.mp4 visual
    [[ $output == *"visual.mp4: nothing to remux: "* ]]
    [ ! -e visual ]
    $ffmpeg -i movie.mp4 -c:v copy -c:a flac flac.mkv
    run -3 $GOLT hls flac.mkv flac
    [[ $output == *"no audio: track 2: FLAC isn't remuxed"* ]]
    [ -s flac/master.m3u8 ]

    # As far as it goes.
    $ffmpeg -i movie.mp4 -c copy -movflags +faststart first.mp4
    $ffmpeg -i movie.mp4 -vn -c copy -movflags +faststart first.m4a
    $ffmpeg -i movie.mp4 -c copy movie.mkv
    local file
    for file in first.mp4 first.m4a movie.mkv; do
        head -c $(($(stat -c %s "$file") / 2)) "$file" >"cut.$file"
        run -3 $GOLT hls "cut.$file" "cut.$file.hls"
        [[ $output == *": the file was cut off"* ]]
        [ -s "cut.$file.hls/1.ts" ]
        run -3 $GOLT remux -q "cut.$file" "cut.$file.ts"
        packets "cut.$file.ts" >expected
        cat "cut.$file.hls"/{0,1}.ts >joined.ts
        packets joined.ts | cmp expected -
        # What isn't there isn't counted.
        $GOLT hls -q "$file" "$file.hls"
        [ "$(rate_of "cut.$file.hls")" -le $((2 * $(rate_of "$file.hls"))) ]
    done
}
