#include "cutter.h"

#include <algorithm>
#include <cstring>

#include "byte_view.h"
#include "ts_time.h"

namespace {

constexpr uint16_t PAT_PID = 0, PMT_PID = 0xFFF;
constexpr size_t PTS_AT = 9;       // in a PES packet
constexpr uint8_t HAS_PCR = 0x10;  // a flag of an adaptation field
constexpr size_t PCR_AT = 6, PCR_SIZE = 6;
// Times are those of the plan; the library may cut them to milliseconds in another way.
constexpr int64_t TOLERANCE = TICKS_PER_MS;
constexpr size_t ROOM = 64 * 1024;  // for what is put in at the end; bytes
// Tables come in pairs, each time the clock has gone on.
constexpr size_t MOST_WAITING = 64;

std::optional<int64_t> pts_of(const uint8_t *packet)
{
    constexpr uint8_t HAS_PTS = 0x80;
    const size_t at = TsPacket(packet).payload_at();
    if (TS_PACKET_SIZE - at < PTS_AT + PTS_FIELD_SIZE) return {};
    const uint8_t *const pes = packet + at;
    if (pes[0] != 0 || pes[1] != 0 || pes[2] != 1 || (pes[7] & HAS_PTS) == 0) return {};
    return static_cast<int64_t>(
        time_of_field(ByteView{pes + PTS_AT, PTS_FIELD_SIZE}.get(PTS_FIELD_SIZE)));
}

bool has_pcr(const uint8_t *packet)
{
    return TsPacket(packet).has_adaptation_field() && packet[TS_HEADER_SIZE] > PCR_SIZE &&
           (packet[TS_HEADER_SIZE + 1] & HAS_PCR) != 0;
}

// The time is one of 33 bits that start again.
bool is_reached(int64_t pts, int64_t bound)
{
    constexpr int64_t RANGE = int64_t{1} << PTS_BITS;
    const int64_t beyond = ((pts - bound + TOLERANCE) % RANGE + RANGE) % RANGE;
    return beyond < RANGE / 2;
}

}  // namespace

Cutter::Cutter(const Range &range, std::vector<uint8_t> &out, size_t most)
    : m_range(range)
    , m_out(out)
    , m_most(most)
    , m_f_begun(!range.from)
{
    m_out.clear();
}

int Cutter::write(uint8_t *buffer, int size)
{
    for (int at = 0; size - at >= static_cast<int>(TS_PACKET_SIZE) && !m_f_done;
         at += static_cast<int>(TS_PACKET_SIZE))
        take(buffer + at);
    return size;
}

void Cutter::take(const uint8_t *packet)
{
    const TsPacket view(packet);
    const uint16_t pid = view.pid();
    if (pid == PAT_PID || pid == PMT_PID) {
        const size_t table = pid == PAT_PID ? 0 : 1;
        memcpy(m_tables[table].data(), packet, TS_PACKET_SIZE);
        m_f_table[table] = true;
        if (m_waiting.size() >= MOST_WAITING) keep_waiting();
        m_waiting.push_back(m_tables[table]);
        return;
    }
    if (view.is_start()) take_start(packet, pid == VIDEO_PID);
    if (m_f_done) return;
    keep_waiting();
    if (m_f_begun)
        keep(packet);
    else if (has_pcr(packet))
        note_clock(packet);
}

void Cutter::take_start(const uint8_t *packet, bool f_video)
{
    const std::optional<int64_t> pts = pts_of(packet);
    if (!pts) return;
    std::optional<int64_t> &first = m_first[f_video ? 0 : 1];
    if (!first) first = pts;
    if (f_video != m_range.f_video) return;
    // If nothing comes before its end, a segment has tables alone.
    m_f_done = m_range.to && is_reached(*pts, *m_range.to);
    if (m_f_begun) return;
    if (m_f_done || is_reached(*pts, *m_range.from))
        begin(packet);
    else
        ++m_units_before;
}

// With tables and a clock.
void Cutter::begin(const uint8_t *packet)
{
    m_f_begun = true;
    m_waiting.clear();
    for (size_t table = 0; table < m_tables.size(); ++table)
        if (m_f_table[table]) keep(m_tables[table].data());
    if (m_f_done) return;
    if (m_f_clock && !has_pcr(packet)) keep(m_clock.data());
}

void Cutter::note_clock(const uint8_t *packet)
{
    constexpr uint8_t ADAPTATION_ALONE = 0x20, STUFFING = 0xFF;
    m_f_clock = true;
    m_clock.fill(STUFFING);
    memcpy(m_clock.data(), packet, PCR_AT + PCR_SIZE);
    m_clock[1] &= 0xBF;  // no payload_unit_start_indicator
    m_clock[3] = ADAPTATION_ALONE;
    m_clock[TS_HEADER_SIZE] = TS_PACKET_SIZE - TS_HEADER_SIZE - 1;
    m_clock[TS_HEADER_SIZE + 1] = HAS_PCR;
}

void Cutter::keep_waiting()
{
    if (m_f_begun)
        for (const Packet &packet : m_waiting)
            keep(packet.data());
    m_waiting.clear();
}

void Cutter::keep(const uint8_t *packet)
{
    m_f_full = m_f_full || m_most - m_out.size() < TS_PACKET_SIZE;
    if (m_f_full) return;
    if (m_out.capacity() - m_out.size() < TS_PACKET_SIZE)
        m_out.reserve(std::min(2 * m_out.capacity(), m_most) + ROOM);
    m_out.insert(m_out.end(), packet, packet + TS_PACKET_SIZE);
}

// Counters

namespace {

constexpr size_t ROUND = 16;  // after so many packets a counter starts again

/// The packets of one PID.
struct Counted {
    uint16_t pid;
    size_t packets = 0;  // with a payload
};

// Bytes of a payload that can be moved to further packets, one byte each: those after a PES header.
size_t divisible(const uint8_t *packet)
{
    constexpr size_t PES_HEAD = 9;
    const TsPacket view(packet);
    const size_t at = view.payload_at();
    const size_t size = view.has_payload() ? TS_PACKET_SIZE - at : 0;
    if (!view.is_start()) return size > 0 ? size - 1 : 0;
    const size_t header = size < PES_HEAD ? size : PES_HEAD + packet[at + PES_HEAD - 1];
    return size > header ? size - header : 0;
}

// A packet with the given payload; the adaptation field, with what is in it, grows as it has to.
void make_packet(uint8_t *to, const uint8_t *head, size_t field_size, const uint8_t *payload,
                 size_t size)
{
    constexpr uint8_t ADAPTATION = 0x20, STUFFING = 0xFF;
    uint8_t made[TS_PACKET_SIZE];
    memcpy(made, head, TS_HEADER_SIZE + field_size);
    const size_t field_end = TS_PACKET_SIZE - size;
    if (field_end > TS_HEADER_SIZE) {
        made[3] |= ADAPTATION;
        made[TS_HEADER_SIZE] = static_cast<uint8_t>(field_end - TS_HEADER_SIZE - 1);
        size_t used = TS_HEADER_SIZE + std::max<size_t>(field_size, 1);
        if (used < field_end && used == TS_HEADER_SIZE + 1) made[used++] = 0;  // flags
        memset(made + used, STUFFING, field_end - used);
    }
    memcpy(made + field_end, payload, size);
    memcpy(to, made, TS_PACKET_SIZE);
}

// Puts count packets after the one at offset, each with a byte from the end of its payload.
void divide(std::vector<uint8_t> &segment, size_t offset, size_t count)
{
    std::array<uint8_t, TS_PACKET_SIZE> whole;
    memcpy(whole.data(), segment.data() + offset, TS_PACKET_SIZE);
    const auto after = segment.begin() + static_cast<ptrdiff_t>(offset + TS_PACKET_SIZE);
    segment.insert(after, count * TS_PACKET_SIZE, 0);
    const size_t at = TsPacket(whole.data()).payload_at();
    const size_t left = TS_PACKET_SIZE - at - count;
    uint8_t *to = segment.data() + offset;
    make_packet(to, whole.data(), at - TS_HEADER_SIZE, whole.data() + at, left);
    whole[1] &= 0xBF;  // no payload_unit_start_indicator
    whole[3] &= 0xDF;  // no adaptation field
    for (size_t i = 0; i < count; ++i) {
        to += TS_PACKET_SIZE;
        make_packet(to, whole.data(), 0, whole.data() + at + left + i, 1);
    }
}

void complete_round(std::vector<uint8_t> &segment, const Counted &counted)
{
    size_t missing = (ROUND - counted.packets % ROUND) % ROUND;
    for (size_t at = segment.size(); missing > 0 && at >= TS_PACKET_SIZE;) {
        at -= TS_PACKET_SIZE;
        if (TsPacket(segment.data() + at).pid() != counted.pid) continue;
        const size_t count = std::min(missing, divisible(segment.data() + at));
        if (count > 0) divide(segment, at, count);
        missing -= count;
    }
}

}  // namespace

void align_counters(std::vector<uint8_t> &segment)
{
    Counted counted[] = {{PAT_PID}, {PMT_PID}, {Cutter::VIDEO_PID}, {Cutter::AUDIO_PID}};
    size_t table_at[2] = {};
    const auto count_all = [&](bool f_number) {
        for (Counted &one : counted)
            one.packets = 0;
        for (size_t at = 0; at < segment.size(); at += TS_PACKET_SIZE) {
            const TsPacket view(segment.data() + at);
            for (size_t i = 0; i < std::size(counted); ++i) {
                if (view.pid() != counted[i].pid) continue;
                if (i < std::size(table_at)) table_at[i] = at;
                if (view.has_payload()) ++counted[i].packets;
                const size_t number = (counted[i].packets + ROUND - 1) % ROUND;
                if (f_number)
                    segment[at + 3] = static_cast<uint8_t>((segment[at + 3] & 0xF0) | number);
            }
        }
    };
    count_all(false);
    complete_round(segment, counted[2]);
    complete_round(segment, counted[3]);
    count_all(false);
    for (size_t i = 0; i < std::size(table_at); ++i) {
        std::array<uint8_t, TS_PACKET_SIZE> table;
        if (counted[i].packets == 0) continue;
        memcpy(table.data(), segment.data() + table_at[i], TS_PACKET_SIZE);
        for (size_t n = counted[i].packets; n % ROUND != 0; ++n)
            segment.insert(segment.end(), table.begin(), table.end());
    }
    count_all(true);
}
