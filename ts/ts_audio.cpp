#include "ts_audio.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace {

constexpr uint32_t AC3_SAMPLE_RATES[] = {48000, 44100, 32000};
constexpr uint8_t AC3_CHANNELS[] = {2, 1, 2, 3, 3, 4, 4, 5};  // by acmod
constexpr unsigned LAST_AC3_BSID = 10;

/// Bits of a few bytes, the most significant one first. Past the end they are 0, and f_short.
struct BitView {
    const uint8_t *bytes;
    size_t size;
    size_t at = 0;  // bits
    bool f_short = false;

    uint32_t get(size_t count)
    {
        uint32_t value = 0;
        for (; count > 0; --count, ++at) {
            f_short = f_short || at / 8 >= size;
            const uint32_t bits = f_short ? 0 : bytes[at / 8];
            value = value << 1 | (bits >> (7 - at % 8) & 1);
        }
        return value;
    }
    void skip(size_t count)
    {
        at += count;
        f_short = f_short || at > size * 8;
    }
};

enum Element : uint32_t { SINGLE, PAIR, COUPLING, LFE, DATA, LAYOUT, FILL, END };  // id_syn_ele

constexpr size_t ADTS_SIZE = 7, ADTS_CRC_SIZE = 2;

uint32_t first_element(BitView &in);

}  // namespace

void AudioFrames::begin()
{
    m_content = {};
    m_f_front = m_left > 0 || m_head_size > 0;
    m_front_size = 0;
    m_f_earlier = m_head_size > 0 && !m_header;
}

void AudioFrames::feed(const uint8_t *bytes, size_t size)
{
    if (m_read == nullptr) return;
    if (m_f_front) {
        const size_t part = std::min(size, SOUND_HEAD_SIZE - m_front_size);
        memcpy(m_front.data() + m_front_size, bytes, part);
        m_front_size += part;
        if (m_front_size < SOUND_HEAD_SIZE) return;
        decide();
        bytes += part;
        size -= part;
    }
    walk(bytes, size);
}

AudioContent AudioFrames::finish()
{
    if (std::exchange(m_f_front, false)) walk(m_front.data(), m_front_size);
    if (m_content.stray > 0 && !m_header && m_left == 0) {
        // The rest of the bytes that belong to no frame.
        m_content.stray += m_head_size;
        m_head_size = 0;
    }
    m_content.missing = missing();
    return m_content;
}

// The frame before lacks bytes. Where frames have ended with their PES packets up to now and one begins here,
// they won't come.
void AudioFrames::decide()
{
    m_f_front = false;
    const std::optional<AudioHeader> header = m_read(m_front.data());
    if (m_f_straddles || !header || header->sample_rate != m_sample_rate) {
        m_f_straddles = true;
    } else {
        // What isn't a header yet isn't a frame either.
        const bool f_frame = m_header.has_value() || m_left > 0;
        if (f_frame)
            m_content.cut = missing();
        else
            m_content.stray = m_head_size;
        m_head_size = 0;
        m_wanted = SOUND_HEAD_SIZE;
        m_header.reset();
        m_left = 0;
        m_f_earlier = false;
    }
    walk(m_front.data(), m_front.size());
}

void AudioFrames::walk(const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        const bool f_head = m_left == 0;
        const size_t part =
            static_cast<size_t>(std::min<uint64_t>(size, f_head ? m_wanted - m_head_size : m_left));
        if (f_head) {
            memcpy(m_head.data() + m_head_size, bytes, part);
            m_head_size += part;
        } else {
            m_left -= part;
        }
        bytes += part;
        size -= part;
        if (!f_head || m_head_size < m_wanted) continue;
        if (!m_header && !take_header()) continue;
        if (m_head_size < m_wanted) continue;
        if (m_read == read_adts) examine_adts();
        m_left = m_header->size - m_head_size;
        m_header.reset();
        m_head_size = 0;
        m_wanted = SOUND_HEAD_SIZE;
    }
}

// False where no frame begins with these bytes; then it may be one byte later.
bool AudioFrames::take_header()
{
    m_header = m_read(m_head.data());
    if (!m_header || m_header->size < SOUND_HEAD_SIZE) {
        m_header.reset();
        memmove(m_head.data(), m_head.data() + 1, --m_head_size);
        if (m_f_synced) ++m_content.stray;
        m_f_earlier = false;
        return false;
    }
    m_f_synced = true;
    m_sample_rate = m_header->sample_rate;
    if (!m_content.first) m_content.first = m_header;
    ++m_content.frames;
    uint64_t &samples = m_f_earlier ? m_content.earlier_samples : m_content.samples;
    if (!m_header->f_dependent) samples += m_header->samples;
    m_f_earlier = false;
    if (m_read == read_adts) m_wanted = std::min<size_t>(m_header->size, MOST_HEAD);
    return true;
}

// ISO/IEC 14496-3: channel_configuration says which element comes first; 0 leaves it to a program_config_element.
void AudioFrames::examine_adts()
{
    const bool f_crc = (m_head[1] & 1) == 0, f_several = (m_head[6] & 3) != 0;
    if (f_crc && f_several) return;  // the positions of the blocks come in between
    const size_t at = ADTS_SIZE + (f_crc ? ADTS_CRC_SIZE : 0);
    if (at >= m_head_size) return;
    BitView in = {m_head.data() + at, m_head_size - at};
    const uint32_t configuration = (m_head[2] & 1U) << 2 | m_head[3] >> 6;
    const uint32_t element = first_element(in);
    if (in.f_short || element == END || element == COUPLING) return;
    m_f_layout = m_f_layout || element == LAYOUT;
    if (configuration == 0 && !m_f_layout)
        m_content.contradiction =
            "an ADTS header leaves the channels to a program_config_element, which is missing";
    else if (configuration == 2 && element == SINGLE)
        m_content.contradiction =
            "an ADTS header announces stereo, but the frame begins with a single channel";
    else if (configuration != 0 && configuration != 2 && element == PAIR)
        m_content.contradiction =
            "an ADTS header announces a single channel first, but the frame begins with a pair";
    else if (configuration != 0 && element == LFE)
        m_content.contradiction = "a frame of AAC begins with its LFE channel";
}

uint64_t AudioFrames::missing() const
{
    if (m_header) return m_header->size - m_head_size;
    return m_head_size > 0 ? SOUND_HEAD_SIZE - m_head_size : m_left;
}

// ISO/IEC 11172-3 and 13818-3: the header of a frame of Layers I to III.
std::optional<AudioHeader> read_mpeg_audio(const uint8_t *head)
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
std::optional<AudioHeader> read_adts(const uint8_t *head)
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

// ATSC A/52, syncinfo and the beginning of bsi.
std::optional<AudioHeader> read_ac3(const uint8_t *head)
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
std::optional<AudioHeader> read_eac3(const uint8_t *head)
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
    // strmtyp, and substreamid of other programs
    header.f_dependent = head[2] >> 6 == 1 || (head[2] >> 3 & 7U) != 0;
    return header;
}

namespace {

// Of a raw_data_block, after data and filling.
uint32_t first_element(BitView &in)
{
    constexpr uint32_t DATA_ESCAPE = 255, FILL_ESCAPE = 15;
    for (;;) {
        const uint32_t element = in.get(3);
        if (in.f_short || (element != DATA && element != FILL)) return element;
        if (element == FILL) {
            uint32_t count = in.get(4);
            if (count == FILL_ESCAPE) count += in.get(8) - 1;
            in.skip(size_t{count} * 8);
            continue;
        }
        in.get(4);  // element_instance_tag
        const bool f_aligned = in.get(1) != 0;
        uint32_t count = in.get(8);
        if (count == DATA_ESCAPE) count += in.get(8);
        if (f_aligned) in.skip((8 - in.at % 8) % 8);
        in.skip(size_t{count} * 8);
    }
}

}  // namespace
