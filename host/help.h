// What --help prints below the options of each subcommand.

#ifndef HOST_HELP_H
#define HOST_HELP_H

constexpr const char *REMUX_FOOTER = R"(
TIME: seconds (90, 5.5), a number with a unit (1500ms, 90s, 2m, 1h) or
hh:mm:ss.mmm, where hours and fraction may be omitted. N is 1 or more.
OUT is written as OUT.part and renamed when it is complete; if it can't be
completed, OUT.part is removed. Pipes and devices are written to directly.
SIGINT, SIGTERM and SIGHUP leave a shorter stream under OUT's name.

Exit status: 0 done; 1 not done, the input was refused or can't be read, or the
output can't be written; 2 bad usage; 3 done, but the only audio or video isn't
in it, it ended early, or the input is damaged; 128 + its number after a signal.

Examples:
  golt remux movie.mp4
  golt remux movie.mkv - --start 10:00 | player -
  golt remux https://example.org/movie.mp4 movie.ts)";

constexpr const char *INFO_FOOTER = R"(
Lists all tracks, whether they are remuxed, and if not, why. Without --scan only
the headers of IN are read. A transport stream has none: all of it is read, and
its program, PIDs, clock and key pictures are printed. For several files one
line each is printed.
Exit status: as for remux; for several files that of the worst.

Examples:
  golt info movie.mp4
  golt info *.mkv
  golt info movie.mkv --scan --json | jq .scan.streams)";

constexpr const char *FRAMES_FOOTER = R"(
Prints a line for each frame: number, stream, time, bytes, and the NAL units of
a picture or the values in an audio frame's header. With --json each line is a
JSON object; the first one names the schema. For M2TS files and transport streams
the lines are PES packets, in the order in which they end; those of a transport
stream also show decoding time, key pictures and the offset in the file.
TIME and exit status: as for remux.

Examples:
  golt frames movie.mp4 --start 1:00 --count 50
  golt frames movie.mkv --csv >frames.csv
  golt frames movie.mp4 --json | jq 'select(.stream == "video") | .size')";

constexpr const char *CHECK_FOOTER = R"(
Judges the packets of a transport stream (188, 192 or 204 bytes each; the first
program), or the stream that remux would write of any other file. Findings are:
  Packets: sync bytes, lost bytes, continuity, errors marked in them.
  PAT and PMT: missing, wrong CRC, more than 500 ms apart, no new version.
  PCR: missing, backward, more than 100 ms apart, jitter at a constant rate.
  Times: frames that arrive after their decoding time, or 2 s after those of the
    other stream; DTS that don't rise, or are after the PTS; times that run
    backward or are repeated; audio with gaps or overlaps above 15 ms; pictures
    10 s apart, if that is 10 times as long as usual in this stream.
  Frames: PES lengths, cut audio frames and bytes between them, ADTS headers
    that contradict the frame; key pictures without parameter sets or
    random_access_indicator, pictures without access unit delimiter.
  Whatever else breaks ISO/IEC 13818-1. An input that ended early.
Lines that begin with "by golt" report what golt does itself; they don't count.
Exit status: 0 nothing was found, 3 something was; 1 and 2 as for remux; for
several files that of the worst.

Examples:
  golt check movie.mp4 recording.ts
  golt check movie.mkv --json | jq '.findings[].code')";

constexpr const char *PLOT_FOOTER = R"(
The plot shows the bit rates of the streams, how late each one is compared with
the other in the file's order, and all sync points: the pictures that MP4 and
Matroska mark as such, and in M2TS those that are independent. A bar is as long
as one group of pictures or several, unless a group takes an eighth of the file.
Exit status: as for remux.

Example:
  golt plot movie.mp4 -o timeline.svg)";

constexpr const char *HLS_FOOTER = R"(
Writes segments of about 6 s, each from a key picture on, and two playlists of
HTTP Live Streaming (RFC 8216): FOLDER/master.m3u8, which states codecs and bit
rates, and FOLDER/index.m3u8. Any web server can serve FOLDER. FOLDER is made if
it doesn't exist. The playlists are written last. Exit status: as for remux.

Example:
  golt hls movie.mkv /var/www/movie)";

constexpr const char *SERVE_FOOTER = R"(
Serves films to browsers and to players of HTTP Live Streaming (RFC 8216), also
to several at a time. Segments are made when they are asked for; nothing is
decoded, and nothing is written to disk. Only files below PATH are served, and
no names that begin with a dot. A page for browsers is at /, the playlist of a
film at its name followed by /index.m3u8, figures at /status and /metrics.
SIZE: bytes, or a number with K, M or G. Exit status: 1 if it can't start, 2 bad
usage, 128 + its number after the signal that ended it.

Examples:
  golt serve ~/Videos
  golt serve ~/Videos ~/Music --bind 0.0.0.0 --cache 256M
  golt serve https://example.org/movie.mp4)";

#endif
