// A media file as a film of HTTP Live Streaming (RFC 8216): a plan of segments, made once, and the
// segments, each by itself. Plan and segments are functions of the file's bytes alone: whoever makes
// them, in whichever order, has the same.

#ifndef HOST_HLS_FILM_H
#define HOST_HLS_FILM_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "even_index.h"
#include "golt_stage.h"
#include "hls/spliced_source.h"
#include "io/source.h"
#include "outline.h"
#include "selection.h"

/// A stretch of the film that is sent as one piece.
struct Segment {
    int64_t start = 0;  ///< ticks of 90 kHz since the film's begin
    int64_t end = 0;    ///< where the next one starts
    uint64_t place =
        0;  ///< where reading begins: an offset in the file; of MP4 a time to seek to, ms
    uint64_t bytes = 0;  ///< of it as it is served, at most, as far as the file's index tells
    /// Of audio alone, what is added from place on to the film's grid of audio (MP4) or to the times that the library
    /// tells (Matroska); ticks of 90 kHz.
    int64_t later = 0;
};

/// What making segments needs to know of the file.
struct FilmFile {
    Outline outline;  ///< without its cues
    Selection selection;
    uint64_t head_end = 0;        ///< of Matroska: what is before it is read for each segment
    std::vector<Patch> patches;   ///< to it
    std::vector<uint8_t> tables;  ///< of M2TS: packets that go before each segment
    int64_t first_time = 0;       ///< that is written for the film's begin, ticks of 90 kHz
    int64_t video_start = 0;      ///< of the first picture, since the film's begin
    int64_t audio_start = 0;      ///< of the first frame of audio, likewise
    int64_t video_offset = 0;     ///< added to the times of a stream, ticks of 90 kHz
    int64_t audio_offset = 0;
    int64_t more_shift = 0;  ///< by which the stage has to move times beyond its usual shift
    golt::AudioGrid audio_grid;
    std::optional<EvenIndex> even_index;  ///< by which the library reads it
};

struct Film {
    std::string refusal;  ///< why it can't be played, in one line; empty: it can
    /// As in CODECS (RFC 6381), such as "avc1.64001f,mp4a.40.2"; empty: not known.
    std::string codecs;
    std::string kinds;     ///< for people, such as "H.264 1280x720, AAC stereo"
    bool f_video = false;  ///< else audio alone
    uint32_t width = 0;    ///< 0: not known
    uint32_t height = 0;
    double frame_rate = 0;      ///< pictures in a second; 0: not known
    bool f_independent = true;  ///< each segment can be decoded without those before it
    bool f_cut = false;         ///< the file ends before the film does
    int64_t duration = 0;       ///< of what is there, ticks of 90 kHz
    /// Bits in a second of the segments as they are served (RFC 8216 4.3.4.2). Where only an index was
    /// read they are upper estimates.
    uint64_t peak_bits = 0;
    uint64_t average_bits = 0;
    std::vector<Segment> segments;
    FilmFile file;

    /// Bytes that it takes, about.
    size_t memory() const;
};

/// Finds out all that Film has. source: at its begin, fresh. Reads an index where the file has one, else
/// the file, once. Never throws for what is in a file: the film has a refusal then.
Film survey_film(Source &source);

/// Makes a segment: a transport stream with PAT, PMT and, with video, a key picture first. source: of the
/// file that film is of, fresh. segment: its former content goes, its memory is used again. Empty when it
/// was made; else why not, in one line. The library has one state in a process: one segment at a time.
std::string make_segment(Source &source, const Film &film, size_t number,
                         std::vector<uint8_t> &segment);
/// No segment is larger, bytes.
constexpr size_t LARGEST_SEGMENT = 64 * 1024 * 1024;

/// EXT-X-TARGETDURATION: the longest segment's, each rounded, in seconds; 1 at least.
int64_t target_duration(const Film &film);
/// The media playlist. Segment 12 is at prefix + "12.ts"; the first one has number 0.
std::string media_playlist(const Film &film, const std::string &prefix = "");
/// The master playlist with its one variant. address: of the media playlist.
std::string master_playlist(const Film &film, const std::string &address);

#endif
