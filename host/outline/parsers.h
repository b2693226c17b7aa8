// The parsers behind read_outline, one for each container. Each fills its part of the outline and
// leaves out what it can't read.

#ifndef HOST_OUTLINE_PARSERS_H
#define HOST_OUTLINE_PARSERS_H

#include "outline.h"

namespace outline {

void read_mp4(Reader &reader, Outline &outline);
/// Of MPEG audio in MP4.
void read_layers(Reader &reader, Outline &outline);
void read_matroska(Reader &reader, Outline &outline);
void read_mpeg_audio(Reader &reader, Outline &outline);
void read_transport_stream(Reader &reader, Outline &outline);

/// "stbl" of a track (ISO/IEC 14496-12): its sample descriptions and tables.
void read_sample_tables(Stretch body, Track &track);

/// A box of ISO/IEC 14496-12.
struct Box {
    uint32_t type;      ///< first letter in the top byte
    Stretch body;       ///< after the header, as far as the stretch around it goes
    uint64_t declared;  ///< bytes of the body by the header
    bool f_64_bit_size;
    bool f_open;  ///< goes on to the end of what it is in
};
/// Takes the next box. None at the end, and where no box can be.
std::optional<Box> next_box(Stretch &in);

TablePlace place_of(const Stretch &body);

constexpr uint32_t box_type(const char (&letters)[5])
{
    uint32_t type = 0;
    for (int i = 0; i < 4; ++i)
        type = type << 8 | static_cast<uint8_t>(letters[i]);
    return type;
}

/// ticks of one part in timescale of a second as nanoseconds; none where that is too much, or
/// timescale is 0.
std::optional<int64_t> ticks_to_ns(uint64_t ticks, uint64_t timescale);

/// A header of a frame of MPEG audio (ISO/IEC 11172-3, 13818-3).
struct MpegAudioHeader {
    uint32_t version;  ///< 10, 20 or 25
    uint32_t layer;
    uint32_t bit_rate;     ///< bits in a second
    uint32_t sample_rate;  ///< hertz
    uint32_t channels;
    uint32_t samples;  ///< in the frame
    uint32_t size;     ///< bytes of the frame
};
/// None where the 32 bits are no header, or one of a free format.
std::optional<MpegAudioHeader> parse_mpeg_audio_header(uint32_t bits);

/// A tag of ID3v2.
struct Id3Header {
    uint8_t version;  ///< 3 of ID3v2.3
    uint8_t flags;
    uint32_t size;        ///< bytes after the header
    uint64_t whole_size;  ///< with header and footer; 0: there is no tag
};
Id3Header take_id3_header(Stretch &in);
/// A number of 28 bits, seven of each byte.
uint32_t take_synchsafe(Stretch &in);

}  // namespace outline

#endif
