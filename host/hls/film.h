// A media file as a film of HTTP Live Streaming (RFC 8216): a plan of segments, made once, and the
// segments, each by itself. Plan and segments are functions of the file's bytes alone: whoever makes
// them, in whichever order, has the same.

#ifndef HOST_HLS_FILM_H
#define HOST_HLS_FILM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "io/source.h"

/// A stretch of the film that is sent as one piece.
struct Segment {
    int64_t start = 0;    ///< ticks of 90 kHz since the film's begin
    int64_t end = 0;      ///< where the next one starts
    uint64_t place = 0;   ///< where in the file reading begins, or for which time the library is asked
    uint64_t before = 0;  ///< what comes from there and belongs to segments before it
};

struct Film {
    std::string refusal;      ///< why it can't be played, in one line; empty: it can
    std::string codecs;       ///< as in CODECS (RFC 6381), such as "avc1.64001f,mp4a.40.2"; empty: not known
    std::string kinds;        ///< for people, such as "H.264 1280x720, AAC stereo"
    uint32_t width = 0;       ///< 0: audio alone
    uint32_t height = 0;
    double frame_rate = 0;    ///< pictures in a second; 0: not known
    bool f_independent = true;  ///< each segment can be decoded without those before it
    int64_t duration = 0;     ///< ticks of 90 kHz
    /// Bits in a second of the segments as they are served (RFC 8216 4.3.4.2). Where only an index was
    /// read they are upper estimates.
    uint64_t peak_bits = 0;
    uint64_t average_bits = 0;
    std::vector<Segment> segments;

    /// Bytes that it takes.
    size_t memory() const;
};

/// Finds out all that Film has. source: at its begin, fresh. Reads an index where the file has one, else the
/// file, once. Never throws for what is in a file: the film has a refusal then.
Film survey_film(Source &source);

/// Makes a segment: a transport stream with PAT, PMT and, with video, a key picture first. source: fresh, of
/// the file that film is of. segment: its former content goes, its memory is used again. Empty when it was made; else why
/// not, in one line. As the library has one state in a process, one segment is made at a time.
std::string make_segment(Source &source, const Film &film, size_t number,
                         std::vector<uint8_t> &segment);
/// No segment is larger, bytes.
constexpr size_t LARGEST_SEGMENT = 64 * 1024 * 1024;

/// The media playlist. Segment 12 is at prefix + "12.ts"; the first one has number 0.
std::string media_playlist(const Film &film, const std::string &prefix = "");
/// The master playlist with its one variant. address: of the media playlist.
std::string master_playlist(const Film &film, const std::string &address);

#endif
