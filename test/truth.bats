#!/usr/bin/env bats
# What the program says of files of real encoders, whole, cut and damaged, and of what of them isn't in
# the stream. Nothing that is lost goes unsaid, and nothing that is complete is suspected.

bats_require_minimum_version 1.5.0

ffmpeg="ffmpeg -v error -nostdin -y"
picture="-f lavfi -i testsrc2=s=96x64:r=25:d=8 -c:v libx264 -preset ultrafast -threads 1 -g 50 -bf 2"
noise="-f lavfi -i anoisesrc=r=44100:a=0.1:d=8 -ac 2"

# Of each sort of file one: the muxer, where the headers are, which track is the longest.
make_files() {
    $ffmpeg $picture -b:v 300k v.mp4
    $ffmpeg $noise -c:a aac -b:a 96k a.m4a
    $ffmpeg $noise -c:a ac3 -b:a 128k a.ac3
    $ffmpeg $noise -c:a libmp3lame -b:a 128k a.mp3
    printf '1\n00:00:01,000 --> 00:00:30,000\nwords\n' >words.srt
    local both="$ffmpeg -i v.mp4 -i a.m4a -c copy"
    $both last.mp4
    $both -movflags +faststart first.mp4
    $ffmpeg -i v.mp4 -i a.m4a -i words.srt -c copy -c:s mov_text -movflags +faststart subs.mp4
    $both av.mkv
    $both -cues_to_front 1 -cluster_time_limit 500 front.mkv
    $both -live 1 -f matroska live.mkv
    $ffmpeg -i v.mp4 -c copy video.mkv
    $ffmpeg -i a.m4a -c copy audio.mka
    mkvmerge -q -o merged.mkv v.mp4 a.ac3
    mkvmerge -q -o subs.mkv v.mp4 a.m4a words.srt
    mkvmerge -q -o laced.mka a.mp3
    mkvmerge -q -o aac.mka a.m4a
    # A Void in place of the Duration (RFC 9559).
    perl -0777 -pe 's/\x44\x89\x88(.{8})/\xEC\x89\0$1/s' merged.mkv >untimed.mkv
    $ffmpeg -i a.mp3 -c copy -write_xing 0 -id3v2_version 0 bare.mp3
    { cat a.mp3; printf 'APETAGEX\xD0\7\0\0\x20%0.27b' 0 | tr 0 '\0' | head -c 32; } >ape.mp3
    $ffmpeg -i a.mp3 -c copy -write_id3v1 1 -metadata title=t tags.mp3
    $ffmpeg $noise -c:a libmp3lame -q:a 5 vbr.mp3
    $ffmpeg -i v.mp4 -i a.ac3 -c copy -mpegts_m2ts_mode 1 av.m2ts
}
mp4="last.mp4 first.mp4 subs.mp4"
matroska="av.mkv front.mkv live.mkv video.mkv audio.mka merged.mkv subs.mkv laced.mka aac.mka untimed.mkv"
mp3="a.mp3 bare.mp3 ape.mp3 tags.mp3 vbr.mp3"

setup() { cd "$BATS_TEST_TMPDIR"; }

# remuxed STATUS FILE [MESSAGE [OPTION...]]: how remuxing ends, and what is among its words.
remuxed() {
    local expected=$1 file=$2 message=${3:-}
    shift $(($# < 3 ? $# : 3))
    run $GOLT remux --force "$file" out.ts "$@"
    echo "$file: $status: $output"
    [ "$status" -eq "$expected" ]
    [[ $output == *"$message"* ]]
}

# hole FILE PERCENT SIZE: the file with zeros there, as "hole".
hole() {
    cp "$1" "hole.${1##*.}"
    dd if=/dev/zero of="hole.${1##*.}" bs=1 seek=$(($(stat -c %s "$1") * $2 / 100)) count="$3" \
        conv=notrunc status=none
}

@test "distinguishes whole files from cut and from damaged ones" {
    make_files
    local file percent expected
    for file in $mp4 $matroska $mp3 av.m2ts; do
        remuxed 0 $file
        [[ $output != *golt:* ]]
        for percent in 99 95 80 50; do
            head -c $(($(stat -c %s $file) * percent / 1000 * 10 + 107)) $file >cut.${file##*.}
            expected=3
            # Its headers are at the end; at 99 % those of the video are there.
            [[ $file$percent != last.mp4[^9]* && $file$percent != last.mp495 ]] || expected=1
            remuxed $expected cut.${file##*.}
        done
        for percent in 30 70; do
            hole $file $percent 4000
            remuxed 3 hole.${file##*.}
        done
    done

    # What is said.
    head -c 300000 first.mp4 >cut.mp4
    remuxed 3 cut.mp4 ' of 00:00:08.0'
    [[ $output == *': ended at 00:00:05.'*': the file was cut off, '*' bytes missing'* ]]
    run -0 $GOLT info cut.mp4
    [[ $output == *'headers before the media, cut off: '*' bytes of '*' are missing'* ]]
    # As long as it takes to show it, the last picture too.
    remuxed 0 video.mkv ' 00:00:08.000'
    head -c 200000 last.mp4 >cut.mp4
    remuxed 1 cut.mp4 'cut.mp4: no moov: the file was cut off'
    cat a.mp3 tags.mp3 >joined.mp3
    remuxed 3 joined.mp3 'ended at 00:00:08.071 of 00:00:16.'
    for file in first.mp4 last.mp4 merged.mkv; do
        cat $file $file >joined.${file##*.}
        remuxed 3 joined.${file##*.} "only its first file is remuxed; another one begins at byte $(stat -c %s $file)"
    done
    hole bare.mp3 80 500
    remuxed 3 hole.mp3 'ended at 00:00:06.4'
    [[ $output == *' bytes after that belong to no frame'* ]]
    head -c -100 bare.mp3 >cut.mp3
    remuxed 3 cut.mp3 'the last frame is cut, 100 bytes missing'
    hole untimed.mkv 50 4000
    remuxed 3 hole.mkv 'damaged at byte'
    # A Void between clusters ends the library's stream.
    perl -0777 -pe '$n = 0; s/(?=\x1F\x43\xB6\x75)/$n++ == 2 ? "\xEC\x82\0\0" : ""/ge' live.mkv >parted.mkv
    remuxed 3 parted.mkv 'an element between clusters'
    run -3 $GOLT check cut.mp3 first.mp4
    [[ $output == *'the last frame is cut'*'first.mp4: '* ]]
}

@test "says what of a file isn't in the stream" {
    local small="-f lavfi -i testsrc2=s=64x48:r=30000/1001:d=1" tone="-f lavfi -i sine=r=48000:d=1"
    local h264="-c:v libx264 -threads 1 -preset ultrafast -pix_fmt yuv420p"
    local vp9="-c:v libvpx-vp9 -deadline realtime -cpu-used 8"
    printf '1\n00:00:00,000 --> 00:00:01,000\nwords\n' >words.srt
    $ffmpeg $small $tone $h264 -c:a libopus opus.mp4
    $ffmpeg $small $tone -c:v libx265 -preset ultrafast -x265-params log-level=none hevc.mp4
    $ffmpeg $small $tone $h264 -movflags frag_keyframe+empty_moov fragments.mp4
    $ffmpeg $small $tone $vp9 -c:a aac vp9.mkv
    $ffmpeg $small $tone $vp9 -c:a libopus none.mkv
    $ffmpeg $small $tone $tone -i words.srt -map 0 -map 1 -map 2 -map 3 -map 1 $h264 -c:a aac \
        -c:a:0 flac -c:s srt second.mkv
    $ffmpeg $tone -c:a aac mono.m4a
    $ffmpeg $small -c:v mpeg4 old.avi
    $ffmpeg $tone bare.ac3
    cp words.srt junk.mkv
    $ffmpeg $tone -c:a libmp3lame tone.mp3 -ar 22050 -c:a libmp3lame low.mp3
    $ffmpeg $small $h264 plain.ts
    perl -0777 -pe 's/(.{4})mdat/pack("N", 1) . "mdat" . pack("NN", 0, 8 + unpack "N", $1)/se;
        s/free/junk/' opus.mp4 >large.mp4
    perl -pe 's/ftyp/free/' mono.m4a >bare.mp4
    $ffmpeg -i mono.m4a -c copy quick.mov
    { printf 'ID3\3\0\0\0\0\0\0%.0s' 1 2; cat tone.mp3; } >twice.mp3
    remuxed 3 opus.mp4     'golt: opus.mp4: no audio: track 2: Opus isn'
    remuxed 3 vp9.mkv      'golt: vp9.mkv: no video: track 1: VP9 isn'
    # None of the pictures that nobody can play.
    [ -z "$($JUDGE times 0x100 out.ts)" ]
    mkvmerge -q -o packed.mkv -A --compression 0:zlib opus.mp4 mono.m4a
    remuxed 3 packed.mkv   'packed.mkv: no video: track 1: H.264 whose frames the container has compressed'
    [[ $output != *damaged* ]]
    remuxed 0 second.mkv   'second.mkv: left out: audio: track 2: FLAC isn'
    [[ $output == *'left out: 1 further audio track'*'left out: 1 subtitle track'* ]]
    local command file
    for command in 'remux --force' info frames check 'plot --force -o out.svg'; do
        for file in 'hevc.mp4 HEVC' 'fragments.mp4 fragmented' 'none.mkv VP9' 'large.mp4 64' \
            'low.mp3 22050' 'plain.ts 188' 'old.avi AVI' 'bare.ac3 AC-3' 'junk.mkv read' \
            'bare.mp4 ftyp' 'quick.mov QuickTime' 'twice.mp3 several'; do
            # Without the library.
            case "$file $command" in *.ts*info | *.ts*frames | *.ts*check) continue ;; esac
            run -1 $GOLT $command ${file% *}
            [[ $output == *"golt: ${file% *}: "*"${file#* }"* ]]
        done
    done

    run -0 $GOLT check second.mkv opus.mp4
    [[ $output == *'by golt: left out: audio: track 2: FLAC'*'by golt: no audio: track 2: Opus'* ]]
    run -0 $GOLT hls second.mkv segments
    [[ $output == *'second.mkv: left out: audio: track 2: FLAC'* ]]

    run -0 $GOLT info second.mkv
    [[ $output == *'track 1     video: H.264 '*', 64 x 48 pixels, 29.970 frames/s'*remuxed* ]]
    [[ $output == *"track 2     audio: FLAC"*"not remuxed: FLAC isn't remuxed"* ]]
    [[ $output == *'track 4     subtitles: SubRip'*'not remuxed: subtitles'* ]]
    # Its sample entry says 2.
    [ "$($GOLT info --json mono.m4a | jq -c '[.sound.channels, .tracks[0].channels]')" = '[1,1]' ]
    [ "$($GOLT info --json hevc.mp4 2>said | jq -c '[.refusal[:7], [.tracks[].remuxed]]')" = \
        '["nothing",[false,false]]' ]
    run -1 $GOLT info second.mkv hevc.mp4 opus.mp4
    [ "$(grep -c '^[a-z]*\.m[kp][v4]: ' <<<"$output")" -eq 2 ]
    [[ $output == *'golt: hevc.mp4: '* ]]
}

# begins FILE START FIRST [FRAMES]: where the stream of a start begins, in seconds.
begins() {
    remuxed 0 "$1" '' --start "$2" --to "$(bc <<<"$2 + 1")"
    local from
    from=$(sed -n 's/.* from 00:\(..\):\([0-9.]*\).*/\1 \2/p' <<<"$output" | awk '{ print $1 * 60 + $2 }')
    awk -v from="$from" -v first="$3" 'BEGIN { exit !(from - first < 0.03 && first - from < 0.03) }'
    [ -z "$(ffmpeg -v error -nostdin -i out.ts -f null - 2>&1)" ]
}

@test "starts at the key picture before, and audio at the frame" {
    local gop="-c:v libx264 -threads 1 -preset ultrafast -g 50 -keyint_min 50 -sc_threshold 0 -bf 2"
    $ffmpeg -f lavfi -i testsrc2=s=96x64:r=25:d=12 $noise $gop -c:a aac -b:a 64k av.mp4
    $ffmpeg -i av.mp4 -c copy av.mkv
    $ffmpeg -i av.mp4 -c copy -live 1 -f matroska live.mkv
    mkvmerge -q -o merged.mkv av.mp4
    mkvmerge -q -o aac.mka -D av.mp4
    $ffmpeg -i av.mp4 -vn -c:a libmp3lame -b:a 64k a.mp3
    $ffmpeg -i av.mp4 -vn -c copy a.m4a
    local file
    # Keys are 2 s apart; ffmpeg's files begin with the first picture at 0.08 s.
    begins av.mp4 5.5 4.08
    begins av.mp4 11.9 10.08
    begins av.mp4 1 0.08
    for file in av.mkv live.mkv merged.mkv; do
        begins $file 5.5 4.02
        begins $file 11.9 10.02
        begins $file 1.5 0.02
    done
    for file in aac.mka a.mp3 a.m4a; do
        begins $file 5.5 5.49
    done
    remuxed 1 av.mkv 'no frame follows 00:01:00.000: it ends at 00:00:12.0' --start 1:00

    # Past an hour, in a file that has to be read from its start.
    $ffmpeg -f lavfi -i anoisesrc=r=44100:d=8 -b:a 32k -write_xing 0 -id3v2_version 0 eight.mp3
    for _ in {1..460}; do cat eight.mp3; done >long.mp3
    $ffmpeg -f lavfi -i testsrc2=s=32x32:r=1:d=3700 -c:v libx264 -threads 1 -preset ultrafast -g 20 \
        -live 1 -f matroska long.mkv
    remuxed 0 long.mp3 ' from 01:00:59.9' --start 1:01:00 --frames 50
    remuxed 0 long.mkv ' from 01:01:00.0' --start 1:01:10 --to 1:01:15
}

# part FILE START TO: the exit status, and how many frames of video and of audio the part has. START may be empty.
part() {
    run $GOLT remux -q --force ${2:+--start "$2"} --to "$3" "$1" out.ts
    echo "$1: $status: $output" >&2
    for pid in 0x100 0x101; do
        ffprobe -v error -select_streams i:$pid -show_entries packet=pts_time -of csv=p=0 out.ts | grep -c . || true
    done | xargs echo "$status"
}

# The library finds a time by the mean interval of a track, and takes frames in that order.
@test "starts with the audio where intervals vary" {
    local source="-f lavfi -i testsrc2=s=64x48:r=25:d=20" sound="-f lavfi -i anoisesrc=r=48000:d=20 -b:a 32k"
    local options="-c:v libx264 -threads 1 -preset ultrafast -bf 0 -g 25 -keyint_min 25 -sc_threshold 0 -fps_mode vfr"
    $ffmpeg $sound -af "aselect=lt(t\,5)+gt(t\,13)" -c:a aac gap.m4a
    begins gap.m4a 15 14.99
    # Few pictures in one half, in order of time, and not.
    $ffmpeg $source $sound $options -vf "select=lt(n\,250)+not(mod(n\,12))" a.mp4
    [ "$(part a.mp4 9 10)" = '0 25 48' ]
    [ "$(part a.mp4 '' 10)" = '0 250 469' ]
    $ffmpeg -i a.mp4 -itsoffset 0.5 -i a.mp4 -map 0:v -map 1:a -c copy late.mp4
    [ "$(part late.mp4 9 10)" = '3 25 48' ]
    # Most of the hours are in few pictures: those that are wanted come two hours later in that order.
    $ffmpeg $source $options -vf "setpts=(N+4999*max(0\,N-100))/25/TB" v.mp4
    $ffmpeg -i v.mp4 -itsoffset 0.5 -i a.mp4 -map 0:v -map 1:a -c copy hours.mp4
    [ "$(part v.mp4 3 4)" = '0 25 0' ]
    [ "$(part hours.mp4 3 4)" = '3 25 48' ]
    [ "$(part hours.mp4 '' 4)" = '3 100 188' ]
    # Of a file that is cut audio comes so far, and no picture.
    $ffmpeg -i hours.mp4 -c copy -movflags +faststart cut.mp4
    truncate -s $(($(stat -c %s cut.mp4) * 2 / 5)) cut.mp4
    [[ $(part cut.mp4 3 4 2>said) == '3 0 '* ]]
    grep 'the file was cut off' said
}

# The next picture in order of decoding is shown after a pause, of which only a key picture tells that none before it is
# still to be shown.
@test "pictures after a pause" {
    $ffmpeg -f lavfi -i testsrc2=s=64x48:r=25:d=12 $noise -c:v libx264 -threads 1 -preset ultrafast -bf 2 -g 25 \
        -keyint_min 25 -sc_threshold 0 -c:a aac -t 12 a.mp4
    local later
    paused() { # PICTURE TICKS
        later="gte(N\\,$1)*$2"
        $ffmpeg -i a.mp4 -c copy -bsf:v "setts=pts=PTS+$later:dts=DTS+$later" paused.mp4
    }
    paused 100 89600
    remuxed 0 paused.mp4
    [ "$(wc -l <<<"$output")" -eq 1 ]
    run -0 $GOLT check out.ts
    paused 99 18000
    remuxed 3 paused.mp4 'interleaved: 1 frame comes up to '
}
