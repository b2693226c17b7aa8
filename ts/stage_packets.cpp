#include "stage_packets.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace golt {

namespace {

constexpr uint8_t SYNC_BYTE = 0x47;
constexpr uint8_t STUFFING = 0xFF;
constexpr size_t PCR_SIZE = 6;
constexpr size_t TIME_SIZE = 5;      // of a PTS or DTS
constexpr size_t PES_HEAD = 9;       // without times
constexpr size_t PES_LENGTH_AT = 4;  // in it

constexpr uint8_t ALIGNED = 0x04;  // data_alignment_indicator: an access unit begins here
constexpr uint32_t PTS_ALONE = 2, PTS_AND_DTS = 3, DTS_BEHIND = 1;  // what is before times

// Base of 33 bits, 6 reserved bits, extension of 9 bits, which is 0.
void put_pcr(uint8_t *to, int64_t pcr)
{
    const auto base = static_cast<uint64_t>(pcr);
    put_be32(to, static_cast<uint32_t>(base >> 1));
    to[4] = static_cast<uint8_t>((base & 1) << 7 | 0x7E);
    to[5] = 0;
}

// 3, 15 and 15 bits after a prefix of 4, each with a marker bit after it.
void put_time(uint8_t *to, uint32_t prefix, int64_t time)
{
    const auto ticks = static_cast<uint32_t>(time);
    const auto high = static_cast<uint32_t>(time >> 30 & 7);
    to[0] = static_cast<uint8_t>(prefix << 4 | high << 1 | 1);
    put_be32(to + 1, (ticks >> 15 & 0x7FFF) << 17 | (ticks & 0x7FFF) << 1 | 0x10001);
}

}  // namespace

PacketWriter::~PacketWriter()
{
    delete[] m_buffer;
}

bool PacketWriter::open()
{
    m_buffer = new (std::nothrow) uint8_t[CAPACITY];
    return m_buffer != nullptr;
}

void PacketWriter::put_packet(OutPid &to, const uint8_t *made)
{
    make_room();
    to.counter = (to.counter + 1) & 0xF;
    memcpy(packet(), made, TS_SIZE);
    packet()[3] = static_cast<uint8_t>(bit::PAYLOAD | to.counter);
    m_held += TS_SIZE;
}

void PacketWriter::put_clock(const OutPid &to, int64_t pcr, bool f_jumps)
{
    make_room();
    uint8_t *const at = packet();
    at[0] = SYNC_BYTE;
    put_be16(at + 1, to.pid);
    at[3] = static_cast<uint8_t>(bit::ADAPTATION |
                                 to.counter);  // a packet without payload doesn't count
    at[4] = static_cast<uint8_t>(TS_ROOM - 1);
    at[5] = static_cast<uint8_t>(bit::HAS_PCR | (f_jumps ? bit::DISCONTINUITY : 0));
    put_pcr(at + 6, pcr);
    memset(at + 6 + PCR_SIZE, STUFFING, TS_SIZE - 6 - PCR_SIZE);
    m_held += TS_SIZE;
}

void PacketWriter::begin_pes(OutPid &to, const PesStart &start)
{
    m_to = &to;
    m_stream_id = start.stream_id;
    m_f_video = start.f_video;
    begin_pes_packet(start);
}

uint8_t *PacketWriter::begin_copied_pes(OutPid &to, const uint8_t *from, size_t pes_at,
                                        const PesStart &start)
{
    if (m_held >= BLOCK) give(m_held);
    m_pes_begin = m_held;
    m_to = &to;
    m_stream_id = start.stream_id;
    m_f_video = start.f_video;
    to.counter = (to.counter + 1) & 0xF;
    uint8_t *const at = packet();
    memcpy(at, from, TS_HEAD);
    memcpy(at + TS_HEAD, from + TS_HEAD, TS_ROOM);
    at[3] = static_cast<uint8_t>(bit::PAYLOAD | bit::ADAPTATION | to.counter);
    at[5] = start.pcr != NO_TIME ? bit::HAS_PCR : 0;
    if (start.pcr != NO_TIME)
        put_pcr(at + 6, start.pcr);
    else
        memset(at + 6, STUFFING, PCR_SIZE);
    uint8_t *const pes = at + pes_at;
    pes[6] |= ALIGNED;
    put_time(pes + PES_HEAD, PTS_ALONE, start.pts);
    m_fill = TS_SIZE;
    m_pes_at = m_held + pes_at + PES_LENGTH_AT;
    m_f_pes_here = true;
    m_pes_size = TS_SIZE - pes_at - PES_UNCOUNTED;
    return pes + PES_HEAD + TIME_SIZE;
}

void PacketWriter::append(const uint8_t *bytes, size_t size)
{
    if (!m_f_video && m_pes_size + size > LONGEST_PES) {
        const auto part = static_cast<size_t>(LONGEST_PES - m_pes_size);
        if (part > 0) append(bytes, part);
        next_pes_of_unit();
        append(bytes + part, size - part);
        return;
    }
    m_pes_size += size;
    while (size > 0) {
        if (m_fill == TS_SIZE) {
            m_held += TS_SIZE;
            begin_packet(*m_to, false);
        }
        // A copy of fixed size needs no call.
        if (m_fill == TS_HEAD && size >= TS_ROOM) {
            memcpy(packet() + TS_HEAD, bytes, TS_ROOM);
            m_fill = TS_SIZE;
            bytes += TS_ROOM;
            size -= TS_ROOM;
            continue;
        }
        const size_t part = std::min(size, TS_SIZE - m_fill);
        memcpy(packet() + m_fill, bytes, part);
        m_fill += part;
        bytes += part;
        size -= part;
    }
}

void PacketWriter::copy(const uint8_t *from, size_t payload_size)
{
    m_held += TS_SIZE;
    make_room();
    m_to->counter = (m_to->counter + 1) & 0xF;
    uint8_t *const to = packet();
    memcpy(to, from, TS_HEAD);
    to[3] = static_cast<uint8_t>((from[3] & 0xF0) | m_to->counter);
    memcpy(to + TS_HEAD, from + TS_HEAD, TS_ROOM);
    m_pes_size += payload_size;
}

void PacketWriter::align()
{
    if (m_fill == TS_SIZE || m_fill == TS_HEAD) return;
    stuff();
}

// The packet that is open, and the one after it, need their room.
void PacketWriter::begin_run(uint32_t head, uint64_t most, bool f_looked_at)
{
    const size_t room = (CAPACITY - m_held) / TS_SIZE;
    if (room <= 2 || m_f_failed) return;
    m_run.head = head;
    m_run.copied_head = m_fill == TS_SIZE && !f_looked_at ? head : NO_HEAD;
    m_run.counter = m_to->counter;
    m_run.begin = m_run.to = m_buffer + m_held + TS_SIZE;
    m_run.end = m_run.to + std::min<uint64_t>(most, room - 2) * TS_SIZE;
}

uint64_t PacketWriter::end_run()
{
    const uint64_t count = size_of_run();
    m_run.end = m_run.to = m_run.begin;
    if (count == 0) return 0;
    m_held += static_cast<size_t>(count) * TS_SIZE;
    m_pes_size += count * TS_ROOM;
    m_to->counter = static_cast<uint8_t>(m_run.counter);
    m_adaptation = 0;
    return count;
}

void PacketWriter::append_in_run(const uint8_t *from)
{
    const size_t rest = TS_SIZE - m_fill;
    uint8_t *const to = next_of_run();
    if (rest == 0) {
        copy_payload(to, from);
        return;
    }
    memcpy(to - rest, from + TS_HEAD, rest);
    memcpy(to + TS_HEAD, from + TS_HEAD + rest, TS_ROOM - rest);
}

void PacketWriter::end_pes()
{
    close_pes();
    m_to = nullptr;
}

void PacketWriter::pass(const uint8_t *bytes, size_t size)
{
    // Mostly one packet, for which a copy of fixed size needs no call.
    if (size == TS_SIZE && BLOCK - m_held > TS_SIZE) {
        memcpy(packet(), bytes, TS_HEAD);
        memcpy(packet() + TS_HEAD, bytes + TS_HEAD, TS_ROOM);
        m_held += TS_SIZE;
        return;
    }
    while (size > 0) {
        if (m_held == BLOCK) give(m_held);
        const size_t part = std::min(size, BLOCK - m_held);
        memcpy(packet(), bytes, part);
        m_held += part;
        bytes += part;
        size -= part;
    }
}

void PacketWriter::flush()
{
    // The start of a PES packet stays here as long as its length isn't known.
    const bool f_open = m_to != nullptr;
    const size_t ready = f_open && m_f_pes_here ? m_pes_begin : m_held;
    const size_t rest = m_held + (f_open ? m_fill : 0) - ready;
    write_out(ready);
    memmove(m_buffer, m_buffer + ready, rest);
    m_held -= ready;
    if (!m_f_pes_here) return;
    m_pes_begin -= ready;
    m_pes_at -= ready;
}

// Private

void PacketWriter::begin_packet(OutPid &to, bool f_unit_start)
{
    make_room();
    to.counter = (to.counter + 1) & 0xF;
    uint8_t *const at = packet();
    at[0] = SYNC_BYTE;
    put_be16(at + 1, to.pid);
    if (f_unit_start) at[1] |= bit::UNIT_START;
    at[3] = static_cast<uint8_t>(bit::PAYLOAD | to.counter);
    m_fill = TS_HEAD;
    m_adaptation = 0;
}

void PacketWriter::begin_pes_packet(const PesStart &start)
{
    if (m_held >= BLOCK) give(m_held);
    m_pes_begin = m_held;
    begin_packet(*m_to, true);
    begin_adaptation(start);
    begin_header(start);
}

void PacketWriter::begin_adaptation(const PesStart &start)
{
    const bool has_pcr = start.pcr != NO_TIME;
    if (!has_pcr && !start.f_random_access) return;
    m_adaptation = 2 + (has_pcr ? PCR_SIZE : 0);
    uint8_t *const at = packet();
    at[3] |= bit::ADAPTATION;
    at[4] = static_cast<uint8_t>(m_adaptation - 1);
    at[5] = static_cast<uint8_t>((start.f_random_access ? bit::RANDOM_ACCESS : 0) |
                                 (has_pcr ? bit::HAS_PCR : 0));
    if (has_pcr) put_pcr(at + 6, start.pcr);
    m_fill += m_adaptation;
}

void PacketWriter::begin_header(const PesStart &start)
{
    const bool has_pts = start.pts != NO_TIME;
    const bool has_dts = has_pts && start.dts != NO_TIME && start.dts != start.pts;
    const size_t times = (has_pts ? TIME_SIZE : 0) + (has_dts ? TIME_SIZE : 0);
    uint8_t *const at = packet() + m_fill;
    put_be16(at, 0);
    at[2] = 1;
    at[3] = start.stream_id;
    put_be16(at + PES_LENGTH_AT, 0);
    at[6] =
        has_pts ? 0x84 : 0x80;  // the payload begins with an access unit: data_alignment_indicator
    at[7] = has_dts ? 0xC0 : has_pts ? 0x80 : 0;
    at[8] = static_cast<uint8_t>(times);
    if (has_pts) put_time(at + PES_HEAD, has_dts ? PTS_AND_DTS : PTS_ALONE, start.pts);
    if (has_dts) put_time(at + PES_HEAD + TIME_SIZE, DTS_BEHIND, start.dts);
    m_pes_at = m_held + m_fill + PES_LENGTH_AT;
    m_f_pes_here = true;
    m_fill += PES_HEAD + times;
    m_pes_size = PES_HEAD - PES_UNCOUNTED + times;
}

// A unit of audio that is too long for a PES packet goes on in another one, which has no time.
void PacketWriter::next_pes_of_unit()
{
    close_pes();
    PesStart more;
    more.stream_id = m_stream_id;
    begin_pes_packet(more);
}

// Puts into the adaptation field what the open packet lacks, so that its payload ends where it does.
void PacketWriter::stuff()
{
    const size_t missing = TS_SIZE - m_fill;
    uint8_t *const at = packet();
    uint8_t *const payload = at + TS_HEAD + m_adaptation;
    memmove(payload + missing, payload, m_fill - TS_HEAD - m_adaptation);
    memset(payload, STUFFING, missing);
    if (m_f_pes_here && m_pes_at >= m_held) m_pes_at += missing;
    if (m_adaptation == 0 && missing > 1) at[5] = 0;  // flags
    m_adaptation += missing;
    at[3] |= bit::ADAPTATION;
    at[4] = static_cast<uint8_t>(m_adaptation - 1);
    m_fill = TS_SIZE;
}

void PacketWriter::close_pes()
{
    if (m_fill < TS_SIZE) stuff();
    m_held += TS_SIZE;
    m_fill = 0;
    if (m_f_pes_here && m_pes_size <= LONGEST_PES)
        put_be16(m_buffer + m_pes_at, static_cast<uint32_t>(m_pes_size));
    m_f_pes_here = false;
}

void PacketWriter::give(size_t size)
{
    write_out(size);
    m_held = 0;
    m_f_pes_here = false;
}

void PacketWriter::write_out(size_t size)
{
    if (size > 0 && !m_f_failed) m_f_failed = !m_write(m_handle, m_buffer, size);
    if (!m_f_failed) m_bytes_out += size;
}

uint32_t section_crc(const uint8_t *bytes, size_t size)
{
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < size; ++i) {
        crc ^= uint32_t{bytes[i]} << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc << 1 ^ ((crc & 0x80000000) != 0 ? 0x04C11DB7u : 0);
    }
    return crc;
}

}  // namespace golt
