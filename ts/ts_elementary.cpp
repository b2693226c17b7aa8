#include "ts_elementary.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr struct {
    Codec codec;
    const char *name;
    const char *id;
    ReadAudioHeader read;
} CODECS[] = {
    {Codec::UNKNOWN, "unknown", "unknown", nullptr},
    {Codec::MPEG2, "MPEG-2", "mpeg2", nullptr},
    {Codec::H264, "H.264", "h264", nullptr},
    {Codec::MPEG_AUDIO, "MPEG audio", "mp3", read_mpeg_audio},
    {Codec::AAC, "AAC", "aac", read_adts},
    {Codec::AC3, "AC-3", "ac3", read_ac3},
    {Codec::EAC3, "E-AC-3", "eac3", read_eac3},
};

// ISO/IEC 13818-1, and ATSC A/52 for AC-3.
constexpr struct {
    uint8_t stream_type;
    Codec codec;
} STREAM_TYPES[] = {
    {0x01, Codec::MPEG2},      {0x02, Codec::MPEG2},      {0x1B, Codec::H264},
    {0x03, Codec::MPEG_AUDIO}, {0x04, Codec::MPEG_AUDIO}, {0x0F, Codec::AAC},
    {0x81, Codec::AC3},        {0x84, Codec::EAC3},       {0x87, Codec::EAC3},
};

// Of those whose content isn't looked into.
constexpr struct {
    uint8_t stream_type;
    const char *name;
} OTHER_TYPES[] = {
    {0x05, "private sections"},
    {0x06, "private data"},
    {0x10, "MPEG-4 video"},
    {0x11, "AAC in LATM"},
    {0x15, "metadata"},
    {0x24, "HEVC"},
    {0x33, "VVC"},
    {0x80, "LPCM"},
    {0x82, "DTS"},
    {0x83, "TrueHD"},
    {0x85, "DTS-HD"},
    {0x90, "graphics"},
};

// Names of nal_unit_type 0 to 12; others are printed as numbers.
constexpr const char *NAL_NAMES[] = {"0",       "slice", "slice-A", "slice-B", "slice-C",
                                     "IDR",     "SEI",   "SPS",     "PPS",     "AUD",
                                     "end-seq", "end",   "filler"};

std::string unit_name(Codec codec, uint8_t unit);

const auto &row_of(Codec codec)
{
    return CODECS[static_cast<size_t>(codec)];
}

}  // namespace

Codec codec_of_stream_type(uint8_t stream_type)
{
    for (const auto &row : STREAM_TYPES) {
        if (row.stream_type == stream_type) return row.codec;
    }
    return Codec::UNKNOWN;
}

std::string stream_type_name(uint8_t stream_type)
{
    const Codec codec = codec_of_stream_type(stream_type);
    if (codec != Codec::UNKNOWN) return codec_name(codec);
    for (const auto &row : OTHER_TYPES) {
        if (row.stream_type == stream_type) return row.name;
    }
    char text[32];
    snprintf(text, sizeof text, "stream type 0x%02X", unsigned{stream_type});
    return text;
}

bool is_video(Codec codec)
{
    return codec == Codec::MPEG2 || codec == Codec::H264;
}

const char *codec_name(Codec codec)
{
    return row_of(codec).name;
}

const char *codec_id(Codec codec)
{
    return row_of(codec).id;
}

std::optional<AudioHeader> read_audio_header(Codec codec, const uint8_t *frame, size_t size)
{
    const ReadAudioHeader read = row_of(codec).read;
    if (read == nullptr || size < SOUND_HEAD_SIZE) return {};
    return read(frame);
}

bool FrameContent::has(uint8_t unit) const
{
    return std::find(units.begin(), units.begin() + unit_count, unit) != units.begin() + unit_count;
}

ContentReader::ContentReader(Codec codec)
    : m_codec(codec)
    , m_audio(row_of(codec).read)
{
}

void ContentReader::begin()
{
    m_content = {};
    m_last_bytes = 0xFFFFFFFF;
    m_audio.begin();
}

void ContentReader::feed(const uint8_t *bytes, size_t size)
{
    is_video(m_codec) ? find_units(bytes, size) : m_audio.feed(bytes, size);
}

FrameContent ContentReader::finish()
{
    m_content.audio = m_audio.finish();
    return m_content;
}

void ContentReader::find_units(const uint8_t *bytes, size_t size)
{
    constexpr uint32_t START_CODE = 0x000001, START_CODE_MASK = 0xFFFFFF;
    uint32_t last = m_last_bytes;
    for (const uint8_t *end = bytes + size; bytes != end; ++bytes) {
        if ((last & START_CODE_MASK) == START_CODE) add_unit(*bytes);
        last = last << 8 | *bytes;
    }
    m_last_bytes = last;
}

void ContentReader::add_unit(uint8_t code)
{
    constexpr uint8_t FIRST_SLICE = 0x01, LAST_SLICE = 0xAF;  // of MPEG-2 video
    if (m_codec == Codec::MPEG2 && code >= FIRST_SLICE && code <= LAST_SLICE) return;
    if (m_content.unit_count == FrameContent::MOST_UNITS) {
        ++m_content.more_units;
        return;
    }
    m_content.units[m_content.unit_count++] =
        m_codec == Codec::H264 ? static_cast<uint8_t>(code & 0x1F) : code;
}

std::string unit_names(Codec codec, const FrameContent &content)
{
    std::string text;
    for (size_t i = 0; i < content.unit_count;) {
        size_t same = 1;
        while (i + same < content.unit_count && content.units[i + same] == content.units[i])
            ++same;
        text += (text.empty() ? "" : " ") + unit_name(codec, content.units[i]);
        if (same > 1) text += " x" + std::to_string(same);
        i += same;
    }
    if (content.more_units > 0) text += " and " + std::to_string(content.more_units) + " more";
    return text;
}

namespace {

std::string unit_name(Codec codec, uint8_t unit)
{
    if (codec == Codec::H264)
        return unit < std::size(NAL_NAMES) ? NAL_NAMES[unit] : std::to_string(unit);
    char number[8];
    switch (unit) {
    case mpeg2::PICTURE: return "picture";
    case mpeg2::SEQUENCE: return "sequence";
    case 0xB5: return "extension";
    case 0xB8: return "group";
    default: snprintf(number, sizeof number, "0x%02X", unsigned{unit}); return number;
    }
}

}  // namespace
