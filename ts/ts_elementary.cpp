#include "ts_elementary.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

using Head = const uint8_t *;

std::optional<AudioHeader> read_mpeg_audio(Head head);
std::optional<AudioHeader> read_adts(Head head);
std::optional<AudioHeader> read_ac3(Head head);
std::optional<AudioHeader> read_eac3(Head head);

constexpr struct {
    Codec codec;
    const char *name;
    const char *id;
    std::optional<AudioHeader> (*read)(Head head);
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

bool FrameContent::has(uint8_t unit) const
{
    return std::find(units.begin(), units.begin() + unit_count, unit) != units.begin() + unit_count;
}

void ContentReader::begin()
{
    m_content = {};
    m_last_bytes = 0xFFFFFFFF;
    m_head_size = 0;
}

void ContentReader::feed(const uint8_t *bytes, size_t size)
{
    if (is_video(m_codec)) return find_units(bytes, size);
    const size_t part = std::min(size, HEAD_SIZE - m_head_size);
    memcpy(m_head.data() + m_head_size, bytes, part);
    m_head_size += part;
}

FrameContent ContentReader::finish()
{
    const auto read = row_of(m_codec).read;
    if (read != nullptr && m_head_size == HEAD_SIZE) m_content.audio = read(m_head.data());
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

// ISO/IEC 11172-3 and 13818-3: the header of a frame of Layers I to III.
std::optional<AudioHeader> read_mpeg_audio(Head head)
{
    // Kilobits in a second by bitrate_index: Layers I, II and III, and with halved sample rates
    // Layer I, then Layers II and III.
    static constexpr uint16_t RATES[5][15] = {
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
    };
    static constexpr uint32_t SAMPLE_RATES[] = {44100, 48000, 32000};
    const unsigned version = head[1] >> 3 & 3U, layer = 4 - (head[1] >> 1 & 3U);
    const unsigned rate = head[2] >> 4, sampling = head[2] >> 2 & 3U, padding = head[2] >> 1 & 1U;
    if (head[0] != 0xFF || (head[1] & 0xE0) != 0xE0 || version == 1 || layer == 4 || rate == 0 ||
        rate == 15 || sampling == 3)
        return {};
    const bool f_half = version != 3;
    AudioHeader header;
    header.sample_rate = SAMPLE_RATES[sampling] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    header.channels = head[3] >> 6 == 3 ? 1 : 2;
    header.bit_rate = RATES[f_half ? (layer == 1 ? 3 : 4) : layer - 1][rate] * 1000U;
    header.samples = layer == 1 ? 384 : layer == 3 && f_half ? 576 : 1152;
    header.size = layer == 1 ? (12 * header.bit_rate / header.sample_rate + padding) * 4
                             : header.samples / 8 * header.bit_rate / header.sample_rate + padding;
    return header;
}

// ISO/IEC 13818-7, adts_fixed_header and adts_variable_header.
std::optional<AudioHeader> read_adts(Head head)
{
    static constexpr uint32_t SAMPLE_RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                22050, 16000, 12000, 11025, 8000,  7350};
    const unsigned sampling = head[2] >> 2 & 15U;
    if (head[0] != 0xFF || (head[1] & 0xF6) != 0xF0 || sampling >= std::size(SAMPLE_RATES))
        return {};
    const unsigned configuration = (head[2] & 1U) << 2 | head[3] >> 6;
    AudioHeader header;
    header.sample_rate = SAMPLE_RATES[sampling];
    header.channels = configuration == 7 ? 8 : configuration;
    header.samples = 1024 * ((head[6] & 3U) + 1);
    header.size = (head[3] & 3U) << 11 | uint32_t{head[4]} << 3 | head[5] >> 5;
    return header;
}

constexpr uint32_t AC3_SAMPLE_RATES[] = {48000, 44100, 32000};
constexpr uint8_t AC3_CHANNELS[] = {2, 1, 2, 3, 3, 4, 4, 5};  // by acmod
constexpr unsigned LAST_AC3_BSID = 10;

// ATSC A/52, syncinfo and the beginning of bsi.
std::optional<AudioHeader> read_ac3(Head head)
{
    static constexpr uint16_t RATES[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                         192, 224, 256, 320, 384, 448, 512, 576, 640};
    const unsigned sampling = head[4] >> 6, size_code = head[4] & 63U, bsid = head[5] >> 3;
    if (head[0] != 0x0B || head[1] != 0x77) return {};
    if (bsid > LAST_AC3_BSID) return read_eac3(head);
    if (sampling == 3 || size_code / 2 >= std::size(RATES)) return {};
    const unsigned mode = head[6] >> 5;
    // Between acmod and lfeon there are cmixlev, surmixlev and dsurmod, of 2 bits each, where the
    // mode has a use for them.
    unsigned at = 3;
    if ((mode & 1) != 0 && mode != 1) at += 2;
    if ((mode & 4) != 0) at += 2;
    if (mode == 2) at += 2;
    const unsigned bits = static_cast<unsigned>(head[6]) << 8 | head[7];
    AudioHeader header;
    header.sample_rate = AC3_SAMPLE_RATES[sampling];
    header.channels = AC3_CHANNELS[mode] + (bits >> (15 - at) & 1U);
    header.bit_rate = RATES[size_code / 2] * 1000U;
    header.samples = 1536;
    // In words of 16 bits; only 44100 Hz leaves a part of a word, which size_code's last bit adds.
    const uint32_t words = header.bit_rate * 96 / header.sample_rate;
    header.size = 2 * (words + (sampling == 1 ? size_code & 1U : 0));
    return header;
}

// ATSC A/52, Annex E.
std::optional<AudioHeader> read_eac3(Head head)
{
    static constexpr uint8_t BLOCKS[] = {1, 2, 3, 6};
    if (head[0] != 0x0B || head[1] != 0x77) return {};
    if (head[5] >> 3 <= LAST_AC3_BSID) return read_ac3(head);
    const unsigned sampling = head[4] >> 6, second = head[4] >> 4 & 3U, mode = head[4] >> 1 & 7U;
    if (sampling == 3 && second == 3) return {};
    AudioHeader header;
    header.sample_rate = sampling == 3 ? AC3_SAMPLE_RATES[second] / 2 : AC3_SAMPLE_RATES[sampling];
    header.channels = AC3_CHANNELS[mode] + (head[4] & 1U);
    header.samples = 256U * BLOCKS[sampling == 3 ? 3 : second];
    header.size = 2 * (((head[2] & 7U) << 8 | head[3]) + 1);
    return header;
}

}  // namespace
