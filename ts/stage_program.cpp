#include "stage_program.h"

#include <cstring>

namespace golt {

namespace {

constexpr size_t COUNTER_AT = 3;  // of a packet
constexpr size_t SECTION_AT = 5;  // after pointer_field
constexpr size_t ENTRIES_AT = 12, ENTRY_HEAD = 5;
constexpr size_t CRC_SIZE = 4;
constexpr size_t VERSION_AT = 5;

const uint8_t PAT[] = {0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1, 0x00, 0x00, 0x00, 0x01, 0xEF, 0xFF};

uint32_t be12(const uint8_t *at)
{
    return (at[0] & 0xFu) << 8 | at[1];
}

uint32_t be13(const uint8_t *at)
{
    return (at[0] & 0x1Fu) << 8 | at[1];
}

// A packet without payload yet; its counter comes when it is written.
void begin_packet(uint8_t *packet, uint16_t pid)
{
    memset(packet, 0xFF, TS_SIZE);
    packet[0] = 0x47;
    packet[1] = static_cast<uint8_t>(0x40 | pid >> 8);
    packet[2] = static_cast<uint8_t>(pid);
    packet[3] = 0x10;
    packet[4] = 0;  // pointer_field
}

void add_crc(uint8_t *section, size_t size)
{
    const uint32_t crc = section_crc(section, size);
    for (unsigned i = 0; i < CRC_SIZE; ++i)
        section[size + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

VideoCodec video_codec_of(uint8_t stream_type)
{
    return stream_type == 0x1B   ? VideoCodec::H264
           : stream_type == 0x02 ? VideoCodec::MPEG2
                                 : VideoCodec::NONE;
}

AudioCodec audio_codec_of(uint8_t stream_type)
{
    switch (stream_type) {
    case 0x03:
    case 0x04: return AudioCodec::MPEG;
    case 0x0F: return AudioCodec::AAC;
    case 0x81:
    case 0x87: return AudioCodec::AC3;
    default: return AudioCodec::NONE;
    }
}

}  // namespace

bool is_library_pat(const uint8_t *packet)
{
    static const uint8_t head[] = {0x47, 0x40, 0x00, 0x10, 0x00};
    return memcmp(packet, head, sizeof head) == 0 &&
           memcmp(packet + SECTION_AT, PAT, sizeof PAT) == 0;
}

bool Program::take_pmt(const uint8_t *packet)
{
    if (memcmp(packet, m_taken, COUNTER_AT) == 0 &&
        memcmp(packet + SECTION_AT, m_taken + SECTION_AT, TS_SIZE - SECTION_AT) == 0)
        return false;
    const uint8_t *const section = packet + SECTION_AT;
    const size_t end = be12(section + 1) + 3;
    if ((packet[1] & 0x40) == 0 || (packet[3] & 0x30) != 0x10 || packet[4] != 0 ||
        section[0] != 2 || end > TS_SIZE - SECTION_AT || end < ENTRIES_AT + CRC_SIZE)
        return false;
    memcpy(m_taken, packet, TS_SIZE);
    m_f_changed = true;
    read_entries(section, end);
    m_video_codec = video_codec_of(m_video.type);
    m_audio_codec = audio_codec_of(m_audio.type);
    return true;
}

void Program::read_entries(const uint8_t *section, size_t end)
{
    m_video = m_audio = Entry();
    size_t at = ENTRIES_AT + be12(section + 10);
    while (at + ENTRY_HEAD + CRC_SIZE <= end) {
        const size_t size = be12(section + at + 3);
        if (size > end - CRC_SIZE - ENTRY_HEAD - at) return;
        Entry entry;
        entry.type = section[at];
        entry.size = size <= MOST_DESCRIPTORS ? size : 0;
        memcpy(entry.descriptors, section + at + ENTRY_HEAD, entry.size);
        const uint32_t pid = be13(section + at + 1);
        if (pid == VIDEO_PID) m_video = entry;
        if (pid == AUDIO_PID) m_audio = entry;
        at += ENTRY_HEAD + size;
    }
}

void Program::put_tables(PacketWriter &writer)
{
    if (m_f_changed) make_tables();
    writer.put_packet(m_pat, m_pat_packet);
    writer.put_packet(m_pmt, m_pmt_packet);
    m_f_written = true;
}

void Program::make_tables()
{
    m_f_changed = false;
    begin_packet(m_pat_packet, PAT_PID);
    memcpy(m_pat_packet + SECTION_AT, PAT, sizeof PAT);
    add_crc(m_pat_packet + SECTION_AT, sizeof PAT);

    uint8_t before[TS_SIZE];
    memcpy(before, m_pmt_packet, TS_SIZE);
    const auto make = [this] {
        begin_packet(m_pmt_packet, PMT_PID);
        uint8_t *const section = m_pmt_packet + SECTION_AT;
        const size_t size = make_pmt(section);
        section[VERSION_AT] = static_cast<uint8_t>(0xC1 | m_version << 1);
        add_crc(section, size);
    };
    make();
    if (!m_f_written || memcmp(before, m_pmt_packet, TS_SIZE) == 0) return;
    m_version = (m_version + 1) & 0x1F;
    make();
}

size_t Program::put_entry(uint8_t *to, uint16_t pid, const Entry &entry)
{
    to[0] = entry.type;
    to[1] = static_cast<uint8_t>(0xE0 | pid >> 8);
    to[2] = static_cast<uint8_t>(pid);
    to[3] = 0xF0;
    to[4] = static_cast<uint8_t>(entry.size);
    memcpy(to + ENTRY_HEAD, entry.descriptors, entry.size);
    return ENTRY_HEAD + entry.size;
}

// Without version and CRC.
size_t Program::make_pmt(uint8_t *to) const
{
    static const uint8_t head[ENTRIES_AT] = {0x02, 0xB0, 0,    0x00, 0x01, 0xC1,
                                             0x00, 0x00, 0xE0, 0,    0xF0, 0x00};
    memcpy(to, head, sizeof head);
    to[8] = static_cast<uint8_t>(0xE0 | pcr_pid() >> 8);
    to[9] = static_cast<uint8_t>(pcr_pid());
    size_t size = ENTRIES_AT;
    if (has_video()) size += put_entry(to + size, VIDEO_PID, m_video);
    if (has_audio()) size += put_entry(to + size, AUDIO_PID, m_audio);
    to[2] = static_cast<uint8_t>(size + CRC_SIZE - 3);
    return size;
}

}  // namespace golt
