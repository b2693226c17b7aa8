#include "stage_audio.h"

#include <algorithm>
#include <cstring>

#include "stage_bytes.h"

namespace golt {

namespace {

const uint32_t AAC_RATES[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                22050, 16000, 12000, 11025, 8000,  7350};

bool read_adts(const uint8_t *bytes, FrameHead &head)
{
    const uint32_t fixed = be32(bytes);
    const uint32_t index = fixed >> 10 & 0xF;
    if ((fixed & 0xFFF60000) != 0xFFF00000 || index >= 13) return false;
    head.size = be32(bytes + 3) >> 13 & 0x1FFF;
    head.samples = 1024 * ((bytes[6] & 3u) + 1);
    head.rate = AAC_RATES[index];
    return head.size > ADTS_SIZE;
}

bool read_mpeg(const uint8_t *bytes, FrameHead &head)
{
    // kbit/s of MPEG-1 layers I to III, then of the lower rates' layer I, and II and III.
    static const uint16_t bit_rates[5][15] = {
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}};
    static const uint32_t rates[3] = {44100, 48000, 32000};
    const unsigned version =
        bytes[1] >> 3 & 3u;  // 3: MPEG-1, 2: MPEG-2, 0: its extension to lower rates
    const unsigned layer = 4 - (bytes[1] >> 1 & 3u);
    const unsigned bit_rate = bytes[2] >> 4, rate = bytes[2] >> 2 & 3u;
    if (bytes[0] != 0xFF || (bytes[1] & 0xE0) != 0xE0 || version == 1 || layer == 4 ||
        bit_rate == 15 || rate == 3)
        return false;
    const bool f_mpeg1 = version == 3;
    head.rate = rates[rate] / (f_mpeg1 ? 1 : version == 2 ? 2 : 4);
    head.samples = layer == 1 ? 384 : layer == 3 && !f_mpeg1 ? 576 : 1152;
    const uint32_t bits = bit_rates[f_mpeg1 ? layer - 1 : layer == 1 ? 3 : 4][bit_rate] * 1000u;
    const uint32_t slot = layer == 1 ? 4 : 1, padding = bytes[2] >> 1 & 1u;
    head.size = bits == 0 ? 0 : (head.samples / 8 / slot * bits / head.rate + padding) * slot;
    return true;
}

bool read_ac3(const uint8_t *bytes, FrameHead &head)
{
    static const uint16_t bit_rates[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                           192, 224, 256, 320, 384, 448, 512, 576, 640};
    static const uint32_t rates[3] = {48000, 44100, 32000};
    if (bytes[0] != 0x0B || bytes[1] != 0x77) return false;
    const unsigned bsid = bytes[5] >> 3, code = bytes[4] >> 6;
    if (bsid <= 10) {
        const unsigned size = bytes[4] & 0x3Fu;
        if (code == 3 || size >= 38) return false;
        const uint32_t bits = bit_rates[size / 2];
        // Words of 16 bits; with 44.1 kHz those of odd codes have one more.
        const uint32_t words = code == 0   ? bits * 2
                               : code == 2 ? bits * 3
                                           : bits * 320 / 147 + (size & 1);
        // Versions 9 and 10 have half and a quarter of the rate.
        head = {words * 2, 1536, rates[code] >> (bsid > 8 ? bsid - 8 : 0)};
        return true;
    }
    if (bsid > 16) return false;
    // E-AC-3. The first of the independent streams gives the time; the others and the dependent ones go with it.
    static const uint32_t blocks[4] = {1, 2, 3, 6};
    const unsigned type = bytes[2] >> 6, substream = bytes[2] >> 3 & 7u, low = bytes[4] >> 4 & 3u;
    if (type == 3 || (code == 3 && low == 3)) return false;
    head.size = (((bytes[2] & 7u) << 8 | bytes[3]) + 1) * 2;
    head.rate = code == 3 ? rates[low] / 2 : rates[code];
    const bool f_counts = type != 1 && substream == 0;
    head.samples = f_counts ? 256 * (code == 3 ? 6 : blocks[low]) : 0;
    return true;
}

// Reads the bits of a configuration; after its end there are only zeros.
class ConfigBits {
public:
    ConfigBits(const uint8_t *bytes, size_t size)
        : m_bytes(bytes)
        , m_size(size * 8)
    {
    }

    bool is_short() const { return m_at > m_size; }

    uint32_t bits(unsigned count)
    {
        uint32_t value = 0;
        for (; count > 0; --count, ++m_at)
            value = value << 1 |
                    (m_at < m_size ? uint32_t{m_bytes[m_at / 8]} >> (7 - m_at % 8) & 1 : 0);
        return value;
    }
    void align() { m_at = (m_at + 7) / 8 * 8; }

private:
    const uint8_t *m_bytes;
    size_t m_size;
    size_t m_at = 0;
};

// Copies an element into a frame. In both, what has to be aligned is aligned from its begin on.
class ElementCopy {
public:
    ElementCopy(ConfigBits &in, uint8_t *to)
        : m_in(in)
        , m_to(to)
    {
    }

    void put(uint32_t value, unsigned count)
    {
        for (; count > 0; --count, ++m_at) {
            if (m_at % 8 == 0) m_to[m_at / 8] = 0;
            m_to[m_at / 8] =
                static_cast<uint8_t>(m_to[m_at / 8] | (value >> (count - 1) & 1) << (7 - m_at % 8));
        }
    }
    uint32_t copy(unsigned count)
    {
        const uint32_t value = m_in.bits(count);
        put(value, count);
        return value;
    }
    void copy_each(uint32_t number, unsigned count)
    {
        for (; number > 0; --number)
            copy(count);
    }
    void align()
    {
        m_in.align();
        m_at = (m_at + 7) / 8 * 8;
    }
    size_t size() const { return m_at / 8; }

private:
    ConfigBits &m_in;
    uint8_t *m_to;
    size_t m_at = 0;
};

// program_config_element (ISO/IEC 14496-3, 4.4.1.1). to: MOST_PCE bytes. Its size is one of whole bytes, so that what
// comes after it in a frame stays aligned.
size_t copy_pce(ConfigBits &in, uint8_t *to)
{
    constexpr uint32_t ID_PCE = 5;
    ElementCopy pce(in, to);
    pce.put(ID_PCE, 3);
    pce.copy(10);  // element_instance_tag, object_type, sampling_frequency_index
    const uint32_t front = pce.copy(4), side = pce.copy(4), back = pce.copy(4), lfe = pce.copy(2),
                   data = pce.copy(3), coupling = pce.copy(4);
    for (const unsigned mixdown : {4u, 4u, 3u})
        if (pce.copy(1) != 0) pce.copy(mixdown);
    pce.copy_each(front + side + back, 5);
    pce.copy_each(lfe + data, 4);
    pce.copy_each(coupling, 5);
    pce.align();
    pce.copy_each(pce.copy(8), 8);  // comment
    return in.is_short() ? 0 : pce.size();
}

uint32_t read_object_type(ConfigBits &in)
{
    const uint32_t type = in.bits(5);
    return type == 31 ? 32 + in.bits(6) : type;
}

// Returns the index of a rate that is there as a number, too; 15 where it has none.
uint32_t read_frequency(ConfigBits &in)
{
    const uint32_t index = in.bits(4);
    if (index != 15) return index;
    const uint32_t rate = in.bits(24);
    const uint32_t *const end = AAC_RATES + 13;
    const uint32_t *const found = std::find(AAC_RATES, end, rate);
    return found == end ? 15 : static_cast<uint32_t>(found - AAC_RATES);
}

}  // namespace

bool read_frame_head(AudioCodec codec, const uint8_t *bytes, FrameHead &head)
{
    switch (codec) {
    case AudioCodec::AAC: return read_adts(bytes, head);
    case AudioCodec::MPEG: return read_mpeg(bytes, head);
    case AudioCodec::AC3: return read_ac3(bytes, head);
    case AudioCodec::NONE: break;
    }
    return false;
}

AacConfig read_aac_config(const uint8_t *config, size_t size)
{
    constexpr uint32_t MAIN = 1, LTP = 4, SBR = 5, PS = 29;
    ConfigBits in(config, size);
    uint32_t type = read_object_type(in);
    const uint32_t index = read_frequency(in);
    const uint32_t channels = in.bits(4);
    // The extension's rate is that of what is decoded; the frames go by the other one.
    if (type == SBR || type == PS) {
        read_frequency(in);
        type = read_object_type(in);
    }
    const bool f_short_frames = in.bits(1) != 0;  // frameLengthFlag
    if (in.is_short() || type < MAIN || type > LTP || index >= 13 || channels > 7) return {};
    AacConfig read;
    read.is_known = true;
    read.profile = static_cast<uint8_t>(type - 1);
    read.frequency_index = static_cast<uint8_t>(index);
    read.channels = static_cast<uint8_t>(channels);
    read.samples = f_short_frames ? 960 : 1024;
    if (channels != 0) return read;
    if (in.bits(1) != 0) in.bits(14);  // coreCoderDelay
    in.bits(1);                        // extensionFlag
    read.pce_size = copy_pce(in, read.pce);
    return read;
}

// Channels of which nothing is known are left as they are.
void correct_adts(uint8_t *header, const AacConfig &config)
{
    const unsigned before = (header[2] & 1u) << 2 | header[3] >> 6;
    const bool f_known = config.channels != 0 || config.pce_size > 0;
    const unsigned channels = f_known ? config.channels : before;
    header[2] =
        static_cast<uint8_t>(unsigned{config.profile} << 6 | unsigned{config.frequency_index} << 2 |
                             (header[2] & 2u) | channels >> 2);
    header[3] = static_cast<uint8_t>((channels & 3) << 6 | (header[3] & 0x3Fu));
}

bool lacks_pce(const uint8_t *frame, const AacConfig &config)
{
    constexpr uint8_t ID_PCE = 5;
    constexpr size_t MOST = 0x1FFF;
    FrameHead head;
    return config.pce_size > 0 && read_adts(frame, head) && frame[ADTS_SIZE] >> 5 != ID_PCE &&
           head.size + config.pce_size <= MOST;
}

void add_pce_to_adts(uint8_t *header, const AacConfig &config)
{
    FrameHead head;
    read_adts(header, head);
    const size_t size = head.size + config.pce_size;
    header[3] = static_cast<uint8_t>((header[3] & 0xFC) | size >> 11);
    header[4] = static_cast<uint8_t>(size >> 3);
    header[5] = static_cast<uint8_t>(size << 5 | (header[5] & 0x1F));
}

void FrameWalk::add_more(const uint8_t *bytes, size_t size)
{
    while (size > m_skip && m_codec != AudioCodec::NONE) {
        bytes += m_skip;
        size -= m_skip;
        m_skip = 0;
        if (size >= FRAME_HEAD_SIZE && m_head_size == 0) {
            take_head(bytes);
            continue;
        }
        const size_t part = std::min(FRAME_HEAD_SIZE - m_head_size, size);
        memcpy(m_head + m_head_size, bytes, part);
        m_head_size += part;
        bytes += part;
        size -= part;
        if (m_head_size < FRAME_HEAD_SIZE) continue;
        m_head_size = 0;
        take_head(m_head);
        m_skip -= std::min(m_skip, FRAME_HEAD_SIZE);
    }
    m_skip -= std::min(m_skip, size);
}

// After what is no header, or states no size, nothing can be found.
void FrameWalk::take_head(const uint8_t *bytes)
{
    if (!read_head(bytes)) {
        m_codec = AudioCodec::NONE;
        return;
    }
    m_samples += m_frame.samples;
    if (m_rate == 0) m_rate = m_frame.rate;
    m_skip = m_frame.size;
    if (m_frame.size < FRAME_HEAD_SIZE) m_codec = AudioCodec::NONE;
}

// Most headers of MPEG audio are like the one before.
bool FrameWalk::read_head(const uint8_t *bytes)
{
    const bool f_mpeg = m_codec == AudioCodec::MPEG;
    const uint32_t key = be32(bytes) >> 8;
    if (f_mpeg && key == m_mpeg_key) return true;
    const bool f_read = read_frame_head(m_codec, bytes, m_frame);
    m_mpeg_key = f_mpeg && f_read ? key : 0;
    return f_read;
}

}  // namespace golt
