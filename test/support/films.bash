# Films of real encoders, and what a player makes of them, for tests by bats.

ffmpeg="ffmpeg -v error -nostdin -y"
h264="-c:v libx264 -threads 1 -preset ultrafast -pix_fmt yuv420p"

# How ffmpeg decodes a file whole: an encoder's delay, which edit lists and MP3's own header tell, isn't taken away. A
# transport stream has no place to tell it. The two decoders for MPEG audio round Layer II in different ways.
whole_options() {
    case $1 in
    *.mp4 | *.m4a) echo "-ignore_editlist 1" ;;
    *.mkv | *.mka) echo "-flags2 +skip_manual" ;;
    layer2.mp3) echo "-flags2 +skip_manual -c:a mp2" ;;
    *.mp3) echo "-flags2 +skip_manual" ;;
    esac
}

# decoded KIND OPTION...: time, size and MD5 of each picture (v) or frame of audio (a) that ffmpeg decodes.
decoded() {
    local kind=$1
    shift
    ffmpeg -v warning -nostdin "$@" -map "0:$kind?" -fps_mode passthrough -enc_time_base 1/90000 -f framemd5 - 2>>said |
        grep -v '^#' | tr -d ' ' | cut -d, -f3,5,6
}

# plays FILE [SURPLUS]: a player of its segments gets all pictures and all audio of the file, picture by picture and
# frame by frame, and pictures at the times of the file to its millisecond. SURPLUS: frames before the first one; a frame
# of MP3 that has nothing but the encoder's words is one of silence for whoever gets it as a frame.
plays() {
    local file=$1 surplus=${2:-0} kind layer2=""
    echo "$file"
    rm -rf out
    $GOLT hls -q "$file" out
    python3 "$BATS_TEST_DIRNAME/playlist_judge.py" $([[ $file != *.m2ts ]] || echo --packets) out
    : >said
    [ "$file" != layer2.mp3 ] || layer2="-c:a mp2"
    for kind in v a; do
        decoded $kind $(whole_options "$file") -i "$file" >expected
        : >said
        decoded $kind $layer2 -i out/master.m3u8 | tail -n "+$((surplus + 1))" >got
        cut -d, -f2,3 got | diff <(cut -d, -f2,3 expected) - | head -n 4
        cmp <(cut -d, -f2,3 expected) <(cut -d, -f2,3 got)
        [ "$kind" = a ] || paste -d, expected got | awk -F, '
            NR == 1 { first = $4 - $1 }
            { off = $4 - $1 - first; if (off > 90 || off < -90) { print "picture " NR ": " off; exit 1 } }'
        cat expected >>"all.$file"
    done
    # Neither decoder nor demuxer has a word to say.
    cat said
    [ ! -s said ]
    [ "$(wc -l <"all.$file")" -gt 100 ]
}
