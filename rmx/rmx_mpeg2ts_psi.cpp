#include <algorithm>
#include <cstring>

#include "golt_crc.h"
#include "golt_endian.h"
#include "rmx_mpeg2ts_i.h"

namespace {

constexpr int SECTION_HEAD_SIZE = 3;  // table_id and section_length
constexpr int CRC_SIZE = 4;

// The last section that was sent, without its CRC, and the CRC. Tables hardly ever change, and on a
// processor that waits for each lookup, the CRC takes as long as a dozen media packets.
struct crc_memo_t {
    int size;
    uint8_t section[32];
    uint32_t crc;
};
crc_memo_t g_crc_memos[2];  // of the PAT and of the PMT

uint32_t section_crc(const uint8_t *pbuf, int size)
{
    crc_memo_t &memo = g_crc_memos[pbuf[0] != 0 ? 1 : 0];
    const auto bytes = static_cast<size_t>(size);
    if (size == memo.size && memcmp(pbuf, memo.section, bytes) == 0) return memo.crc;
    const uint32_t crc = golt_crc32(pbuf, static_cast<uint32_t>(size));
    if (bytes <= sizeof memo.section) {
        memo.size = size;
        memcpy(memo.section, pbuf, bytes);
        memo.crc = crc;
    }
    return crc;
}

// Head of a section of n bytes, its CRC included; version 0, valid now, the only section of its
// table.
uint8_t *put_section_head(uint8_t *pb, uint8_t table_id, int n, int id)
{
    pb[0] = table_id;
    put_be16(pb + 1, static_cast<uint16_t>(0xB000 + n - SECTION_HEAD_SIZE));
    put_be16(pb + 3, static_cast<uint16_t>(id));
    pb[5] = 0xC1;
    pb[6] = 0;
    pb[7] = 0;
    return pb + 8;
}

constexpr size_t REGISTRATION_SIZE = 6;

// Registration descriptor of an audio codec (ATSC A/52), or null.
const uint8_t *registration_descriptor(GOLT_codecs_t codec)
{
    static const uint8_t ac3[REGISTRATION_SIZE] = {0x05, 0x04, 'A', 'C', '-', '3'};
    static const uint8_t eac3[REGISTRATION_SIZE] = {0x05, 0x04, 'E', 'A', 'C', '3'};
    switch (codec) {
    case GOLT_ACODEC_AC3: return ac3;
    case GOLT_ACODEC_EAC3: return eac3;
    default: return nullptr;
    }
}

uint8_t *put_stream_entry(uint8_t *pb, const MPEG2TSWriteStream_t &stream,
                          const uint8_t *descriptor)
{
    const size_t size = descriptor != nullptr ? REGISTRATION_SIZE : 0;
    pb[0] = stream.stream_type;
    put_be16(pb + 1, static_cast<uint16_t>(0xE000 | stream.PID));
    put_be16(pb + 3, static_cast<uint16_t>(0xF000 | size));
    if (descriptor != nullptr) memcpy(pb + 5, descriptor, size);
    return pb + 5 + size;
}

}  // namespace

bool mpeg2ts_write_section(MPEG2TSSection_t *s, uint8_t *pbuf, int n)
{
    put_be32(pbuf + n - CRC_SIZE, section_crc(pbuf, n - CRC_SIZE));
    uint8_t *const packet = remux_context.packet;
    for (uint32_t unit_start = UNIT_START; n > 0; unit_start = 0) {
        s->continuity_counter = (s->continuity_counter + 1) & 0xF;
        put_be32(packet, uint32_t{SYNC_BYTE} << 24 | (unit_start | s->PID) << 8 | PAYLOAD |
                             s->continuity_counter);
        uint8_t *pb = packet + HEADER_SIZE;
        if (unit_start != 0) *pb++ = 0;  // pointer_field
        const int part = std::min(n, static_cast<int>(packet + PACKET_SIZE - pb));
        copy_part(pb, pbuf, part);
        pb += part;
        stuff(pb, static_cast<int>(packet + PACKET_SIZE - pb));
        send_packet();
        pbuf += part;
        n -= part;
    }
    return true;
}

bool mpeg2ts_send_pat()
{
    constexpr int PAT_SIZE = 16;
    uint8_t section[32];
    uint8_t *pb = put_section_head(section, 0x00, PAT_SIZE, remux_context.tsid);
    put_be16(pb, static_cast<uint16_t>(remux_context.service.sid));
    put_be16(pb + 2, static_cast<uint16_t>(0xE000 | remux_context.service.pmt.PID));
    return mpeg2ts_write_section(&remux_context.pat, section, PAT_SIZE);
}

bool mpeg2ts_send_pmt()
{
    constexpr int ENTRIES = 12;
    uint8_t section[64];  // all of what is sent gets written
    uint8_t *pb_end = section + ENTRIES;
    if (remux_context.video.is_present)
        pb_end = put_stream_entry(pb_end, remux_context.video, nullptr);
    if (remux_context.audio.is_present)
        pb_end = put_stream_entry(pb_end, remux_context.audio,
                                  registration_descriptor(remux_context.sinfo.audioCodec));

    const int n = static_cast<int>(pb_end - section) + CRC_SIZE;
    uint8_t *pb = put_section_head(section, 0x02, n, remux_context.service.sid);
    put_be16(pb, static_cast<uint16_t>(0xE000 | remux_context.service.pcr_pid));
    put_be16(pb + 2, 0xF000);  // no program descriptors
    return mpeg2ts_write_section(&remux_context.service.pmt, section, n);
}
