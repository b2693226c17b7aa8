// What is in the frames of elementary streams, as far as a person who looks for a fault wants to
// know it: the kinds of NAL units, and the figures of audio headers.

#ifndef TS_TS_ELEMENTARY_H
#define TS_TS_ELEMENTARY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "ts_audio.h"

enum class Codec { UNKNOWN, MPEG2, H264, MPEG_AUDIO, AAC, AC3, EAC3 };

/// stream_type of a PMT.
Codec codec_of_stream_type(uint8_t stream_type);
bool is_video(Codec codec);
const char *codec_name(Codec codec);  ///< for people: "H.264"
const char *codec_id(Codec codec);    ///< for programs: "h264"
/// For people, of any stream_type.
std::string stream_type_name(uint8_t stream_type);

/// The header that a frame of audio begins with; none where these bytes don't begin one.
std::optional<AudioHeader> read_audio_header(Codec codec, const uint8_t *frame, size_t size);

struct FrameContent {
    static constexpr size_t MOST_UNITS = 64;

    /// nal_unit_type of H.264, the start codes of MPEG-2 video but those of slices; in their order.
    std::array<uint8_t, MOST_UNITS> units = {};
    size_t unit_count = 0;    ///< in the array
    uint64_t more_units = 0;  ///< for which it has no room
    AudioContent audio;

    bool has(uint8_t unit) const;
};

namespace nal {
constexpr uint8_t SLICE = 1, PARTITION_C = 4, IDR = 5, SPS = 7, PPS = 8, DELIMITER = 9;
}
namespace mpeg2 {
constexpr uint8_t PICTURE = 0x00, SEQUENCE = 0xB3;
}

/// Reads the frames of a stream, which come in pieces. Keeps only what they state.
class ContentReader {
public:
    explicit ContentReader(Codec codec = Codec::UNKNOWN);

    Codec codec() const { return m_codec; }
    void begin();
    void feed(const uint8_t *bytes, size_t size);
    /// What was in the frame.
    FrameContent finish();

private:
    void find_units(const uint8_t *bytes, size_t size);
    void add_unit(uint8_t code);

    Codec m_codec;
    FrameContent m_content;
    uint32_t m_last_bytes = 0xFFFFFFFF;
    AudioFrames m_audio;
};

/// "SPS PPS IDR x4" or the like; empty when the frame has no units.
std::string unit_names(Codec codec, const FrameContent &content);

#endif
