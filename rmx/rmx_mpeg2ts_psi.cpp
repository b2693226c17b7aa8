#include <algorithm>
#include <cstring>

#include "golt_crc.h"
#include "golt_endian.h"
#include "rmx_mpeg2ts_i.h"

namespace {

constexpr int SECTION_HEAD_SIZE = 3;  // table_id and section_length
constexpr int CRC_SIZE = 4;

// All that a table's packet is made of, but for its counter. Compared as numbers, because comparing bytes that were just
// stored takes longer.
struct psi_key_t {
    uint64_t ids, streams;
};

// The packet of a table, as it was before any sink saw it. Tables hardly ever change, and both go out with every 41 media
// packets. To make them takes as long as 4 of these, and their CRCs as long as 20 where the processor waits for each
// lookup.
struct psi_memo_t {
    bool f_filled;
    psi_key_t key;
    uint8_t packet[PACKET_SIZE];
};
psi_memo_t g_pat_memo, g_pmt_memo;

// Four numbers in one. In a table none has more than 16 bits, and neither has a codec.
uint64_t pack(uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    return uint64_t{a << 16 | (b & 0xFFFF)} << 32 | (c << 16 | (d & 0xFFFF));
}

uint32_t pack(const MPEG2TSWriteStream_t &stream)
{
    return uint32_t{stream.is_present} << 8 | stream.stream_type;
}

bool is_kept(const psi_memo_t &memo, const psi_key_t &key)
{
    return memo.f_filled && memo.key.ids == key.ids && memo.key.streams == key.streams;
}

void put_crc(uint8_t *section, int n)
{
    put_be32(section + n - CRC_SIZE, golt_crc32(section, static_cast<uint32_t>(n - CRC_SIZE)));
}

// A packet with as much of the n bytes of a section as it holds; their number. unit_start: 0 after the first one.
int put_packet(uint8_t *packet, const MPEG2TSSection_t &s, uint32_t unit_start,
               const uint8_t *pb_section, int n)
{
    put_be32(packet, uint32_t{SYNC_BYTE} << 24 | (unit_start | s.PID) << 8 | PAYLOAD |
                         s.continuity_counter);
    uint8_t *pb = packet + HEADER_SIZE;
    if (unit_start != 0) *pb++ = 0;  // pointer_field
    const int part = std::min(n, static_cast<int>(packet + PACKET_SIZE - pb));
    copy_part(pb, pb_section, part);
    pb += part;
    stuff(pb, static_cast<int>(packet + PACKET_SIZE - pb));
    return part;
}

void keep(psi_memo_t &memo, const psi_key_t &key, const MPEG2TSSection_t &s, uint8_t *section,
          int n)
{
    put_crc(section, n);
    put_packet(memo.packet, s, UNIT_START, section, n);
    memo.key = key;
    memo.f_filled = true;
}

void advance(MPEG2TSSection_t &s)
{
    s.continuity_counter = (s.continuity_counter + 1) & 0xF;
}

void send_kept(MPEG2TSSection_t &s, const psi_memo_t &memo)
{
    advance(s);
    copy_part(remux_context.packet, memo.packet, PACKET_SIZE);
    remux_context.packet[3] = static_cast<uint8_t>(PAYLOAD | s.continuity_counter);
    send_packet();
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
    put_crc(pbuf, n);
    for (uint32_t unit_start = UNIT_START; n > 0; unit_start = 0) {
        advance(*s);
        const int part = put_packet(remux_context.packet, *s, unit_start, pbuf, n);
        send_packet();
        pbuf += part;
        n -= part;
    }
    return true;
}

bool mpeg2ts_send_pat()
{
    const MPEG2TSService_t &service = remux_context.service;
    MPEG2TSSection_t &pat = remux_context.pat;
    const psi_key_t key = {pack(pat.PID, static_cast<uint32_t>(remux_context.tsid),
                                static_cast<uint32_t>(service.sid), service.pmt.PID),
                           0};
    if (!is_kept(g_pat_memo, key)) {
        constexpr int PAT_SIZE = 16;
        uint8_t section[32];
        uint8_t *pb = put_section_head(section, 0x00, PAT_SIZE, remux_context.tsid);
        put_be16(pb, static_cast<uint16_t>(service.sid));
        put_be16(pb + 2, static_cast<uint16_t>(0xE000 | service.pmt.PID));
        keep(g_pat_memo, key, pat, section, PAT_SIZE);
    }
    send_kept(pat, g_pat_memo);
    return true;
}

bool mpeg2ts_send_pmt()
{
    const MPEG2TSWriteStream_t &video = remux_context.video, &audio = remux_context.audio;
    const GOLT_codecs_t codec = remux_context.sinfo.audioCodec;
    MPEG2TSService_t &service = remux_context.service;
    const psi_key_t key = {
        pack(static_cast<uint32_t>(service.sid), static_cast<uint32_t>(service.pcr_pid),
             static_cast<uint32_t>(video.PID), static_cast<uint32_t>(audio.PID)),
        pack(service.pmt.PID, pack(video), pack(audio), static_cast<uint32_t>(codec))};
    if (!is_kept(g_pmt_memo, key)) {
        constexpr int ENTRIES = 12;
        uint8_t section[64];  // all of what is sent gets written
        uint8_t *pb_end = section + ENTRIES;
        if (video.is_present) pb_end = put_stream_entry(pb_end, video, nullptr);
        if (audio.is_present)
            pb_end = put_stream_entry(pb_end, audio, registration_descriptor(codec));

        const int n = static_cast<int>(pb_end - section) + CRC_SIZE;
        uint8_t *pb = put_section_head(section, 0x02, n, service.sid);
        put_be16(pb, static_cast<uint16_t>(0xE000 | service.pcr_pid));
        put_be16(pb + 2, 0xF000);  // no program descriptors
        keep(g_pmt_memo, key, service.pmt, section, n);
    }
    send_kept(service.pmt, g_pmt_memo);
    return true;
}
