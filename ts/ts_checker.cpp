#include "ts_checker.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "ts_time.h"

namespace {

constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr uint64_t EXTENSIONS = PCR_PER_TICK;  // values of program_clock_reference_extension
constexpr uint64_t PES_START = 1;              // packet_start_code_prefix
constexpr size_t PES_FIXED_SIZE = 9;           // up to PES_header_data_length
constexpr uint64_t EXTENDED_STREAM_ID = 0xFD;
constexpr size_t PES_LENGTH_END = 6;  // after it the bytes that PES_packet_length counts

size_t missing_header(const Bytes &header);
bool begins_pes(const Bytes &header);
bool is_private(uint8_t stream_type);
bool has_pes_fields(uint8_t stream_id);

}  // namespace

TsChecker::TsChecker(TsEvents &events, Programs programs)
    : m_events(events)
    , m_programs(programs)
{
    m_pids[PID_PAT].program = 0;
}

void TsChecker::feed(const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        size_t taken = TS_PACKET_SIZE;
        if (m_piece_size == 0 && size >= TS_PACKET_SIZE) {
            feed_packet(bytes, m_packet * TS_PACKET_SIZE);
        } else {
            taken = std::min(size, TS_PACKET_SIZE - m_piece_size);
            memcpy(m_piece.data() + m_piece_size, bytes, taken);
            m_piece_size += taken;
            if (m_piece_size == TS_PACKET_SIZE) {
                feed_packet(m_piece.data(), m_packet * TS_PACKET_SIZE);
                m_piece_size = 0;
            }
        }
        bytes += taken;
        size -= taken;
    }
}

void TsChecker::feed_packet(const uint8_t *packet, uint64_t offset)
{
    m_offset = offset;
    check_packet(TsPacket(packet));
    ++m_packet;
}

void TsChecker::lose(uint64_t size)
{
    m_pid = PID_NULL;
    complain(rules::LOST_BYTES, nullptr, static_cast<int64_t>(size));
    ++m_epoch;
}

void TsChecker::end_pes()
{
    for (auto &[pid, state] : m_pids) {
        m_pid = pid;
        finish_pes(state);
    }
}

void TsChecker::finish()
{
    if (m_piece_size > 0) {
        std::fill(m_piece.begin() + static_cast<std::ptrdiff_t>(m_piece_size), m_piece.end(),
                  uint8_t{0});
        const TsPacket piece(m_piece.data());
        m_pid = piece.pid();
        piece.has_sync_byte() ? complain("the packet is cut short")
                              : complain(rules::SYNC_BYTE, "no sync byte");
        ++m_packet;
        m_piece_size = 0;
    }
    for (auto &[pid, state] : m_pids) {
        m_pid = pid;
        finish_pes(state);
        if (state.program && state.table.empty()) complain(rules::TABLE_MISSING);
    }
}

void TsChecker::complain(const TsRule &rule, const char *detail, int64_t amount)
{
    m_events.on_problem({&rule, m_packet, m_pid, detail, false, {}, amount});
}

void TsChecker::note_unusual(const char *detail)
{
    m_events.on_problem({&rules::STRUCTURE, m_packet, m_pid, detail, true});
}

void TsChecker::check_packet(const TsPacket &packet)
{
    const bool f_payload = packet.has_payload();
    m_pid = packet.pid();
    if (!packet.has_sync_byte() || packet.is_damaged()) {
        // Whose packet it was can't be said. What comes next on a PID needn't continue what came before.
        complain(packet.has_sync_byte() ? rules::TRANSPORT_ERROR : rules::SYNC_BYTE);
        ++m_epoch;
        return;
    }
    if (m_pid == PID_NULL) return;
    if (packet.is_scrambled() || !(f_payload || packet.has_adaptation_field()))
        return complain("the packet is scrambled or has no content");

    m_pcr.reset();
    m_f_discontinuous = m_f_random_access = false;
    ByteView in{packet.bytes() + TS_HEADER_SIZE, TS_PACKET_SIZE - TS_HEADER_SIZE};
    if (packet.has_adaptation_field()) read_adaptation(in, f_payload);
    PidState &state = m_pids[m_pid];
    const bool f_same =
        state.f_last && memcmp(state.last.data(), packet.bytes(), TS_PACKET_SIZE) == 0;
    const int counter_before = TsPacket(state.last.data()).counter();
    const bool f_gap = state.f_last && state.epoch != m_epoch;
    const bool f_before = std::exchange(state.f_last, true) && !f_gap;
    state.epoch = m_epoch;
    memcpy(state.last.data(), packet.bytes(), TS_PACKET_SIZE);
    // A packet may come twice, but not more often.
    const bool f_copy = f_payload && f_same && !f_gap;
    if (f_copy && state.f_copy) complain(rules::CONTINUITY, "a packet comes more than twice");
    state.f_copy = f_copy;
    if (f_copy) return;
    if (m_pcr && state.f_clock) {
        m_clock = m_pcr;
        m_events.on_pcr(m_packet, *m_pcr, m_f_discontinuous);
    }
    const int step = f_before ? (packet.counter() - counter_before) & 0x0F : int{f_payload};
    const bool f_jump = step != int{f_payload} && !m_f_discontinuous;
    if (f_jump) complain(rules::CONTINUITY);
    if (f_jump || f_gap) {
        state.pes.f_broken = true;
        state.section.clear();
    }
    if (!f_payload) return;
    state.program ? read_sections(state, packet.is_start(), in)
                  : add_to_pes(state, packet.is_start(), in);
}

void TsChecker::read_adaptation(ByteView &packet, bool f_payload)
{
    // A payload has at least a byte; without one all of the packet is adaptation field.
    const uint64_t length = packet.get(1);
    if (f_payload ? length >= packet.left : length != packet.left)
        complain("adaptation_field_length doesn't fit the packet");
    ByteView in = packet.take(length);
    if (in.left == 0) return;

    const uint64_t flags = in.get(1);
    m_f_discontinuous = (flags & 0x80) != 0;
    m_f_random_access = (flags & 0x40) != 0;
    if ((flags & 0x10) != 0) {
        const uint64_t field = in.get(6), extension = field & 0x1FF;
        if (extension >= EXTENSIONS) complain("the PCR extension is 300 or more");
        m_pcr = (field >> 15) * EXTENSIONS + extension;
    }
    if (in.f_short) complain("the adaptation field is too short for its flags");
    if ((flags & 0x0F) != 0)
        note_unusual("unexpected flags of the adaptation field");
    else if (!in.is_stuffing())
        complain("the adaptation field has wrong stuffing");
}

void TsChecker::add_to_pes(PidState &state, bool f_start, ByteView in)
{
    // A PID that no PMT lists can carry anything, such as other tables.
    const bool f_pes = f_start && ByteView(in).get(3) == PES_START;
    if (!state.pmt && f_pes) note_unusual("a PES packet that no PMT has announced");
    if (!state.pmt) return;
    if (f_start) {
        finish_pes(state);
        // Others than those of ISO/IEC 13818-1 may be sections, or anything.
        if (!f_pes && is_private(state.stream_type)) return;
        state.f_open = true;
        state.pes = {};
        state.pes.pid = m_pid;
        state.pes.pcr = m_pcr;
        state.pes.first_packet = m_packet;
        state.pes.offset = m_offset;
        state.pes.f_random_access = m_f_random_access;
        m_events.on_pes_start(m_pid);
        if (std::exchange(state.f_lacks_pcr, false) && !m_pcr) note_unusual("PCR_PID without PCR");
    }
    if (!state.f_open) return note_unusual("payload before the start of a PES packet");

    state.pes.arrived = m_clock;
    state.total += in.left;
    for (size_t missing = 0; (missing = missing_header(state.header)) > 0 && in.left > 0;) {
        const ByteView part = in.take(std::min(missing, in.left));
        state.header.insert(state.header.end(), part.at, part.at + part.left);
    }
    if (in.left == 0 || !begins_pes(state.header)) return;
    state.pes.payload_size += in.left;
    m_events.on_payload(m_pid, in.at, in.left);
}

void TsChecker::finish_pes(PidState &state)
{
    if (!std::exchange(state.f_open, false)) return;
    TsPes &pes = state.pes;
    const Bytes header = std::exchange(state.header, {});
    const uint64_t total = std::exchange(state.total, 0);
    ByteView in{header.data(), header.size()};
    const uint64_t start = in.get(3), id = in.get(1), length = in.get(2);
    const uint64_t flags = in.get(2), times = flags >> 6 & 3;
    ByteView fields = in.take(in.get(1));
    pes.f_broken = pes.f_broken || state.epoch != m_epoch;
    const bool f_fields = has_pes_fields(static_cast<uint8_t>(id));
    if (start != PES_START || total < PES_LENGTH_END || (f_fields && in.f_short)) {
        if (!pes.f_broken)
            complain(start != PES_START ? "a PES packet has no packet_start_code_prefix"
                                        : "a PES packet is shorter than its header");
        return m_events.on_pes_end(pes);
    }
    pes.stream_id = static_cast<uint8_t>(id);
    pes.length = static_cast<uint16_t>(length);
    pes.size = total - PES_LENGTH_END;
    // Only video may leave its length open, with 0.
    const bool f_open_length = length == 0 && ((id & 0xF0) == 0xE0 || id == EXTENDED_STREAM_ID);
    if (length != (pes.size & 0xFFFF) && !f_open_length && !pes.f_broken)
        complain(rules::PES_LENGTH);
    if (!f_fields) return m_events.on_pes_end(pes);
    // The header begins with '10', and PTS_DTS_flags isn't '01'.
    if ((flags & 0xC000) != 0x8000 || times == 1) complain("wrong flags of a PES header");
    if (times >= 2) pes.pts = read_time(fields, times);
    if (times == 3) pes.dts = read_time(fields, 1);
    if (fields.f_short) complain("a PES_header_data_length is too small");
    // AC-3 of M2TS files has PES_extension_flag set and the extension's fields.
    if ((flags & 0x3E) != 0 || ((flags & 0x01) == 0 && !fields.is_stuffing()))
        note_unusual("unexpected fields of a PES header");
    m_events.on_pes_end(pes);
}

// A PTS or DTS, with its prefix.
uint64_t TsChecker::read_time(ByteView &in, uint64_t prefix)
{
    const uint64_t field = in.get(PTS_FIELD_SIZE);
    if (!in.f_short && (field >> 36 != prefix || (field & PTS_MARKERS) != PTS_MARKERS))
        complain("wrong prefix or marker bits of a PTS or DTS");
    return time_of_field(field);
}

namespace {

// Bytes of a PES header that are still to come, as far as what has come shows.
size_t missing_header(const Bytes &header)
{
    if (header.size() < PES_FIXED_SIZE) return PES_FIXED_SIZE - header.size();
    return PES_FIXED_SIZE + header[PES_FIXED_SIZE - 1] - header.size();
}

bool begins_pes(const Bytes &header)
{
    return header.size() >= PES_FIXED_SIZE && header[0] == 0 && header[1] == 0 && header[2] == 1;
}

// ISO/IEC 13818-1: these have their bytes right after PES_packet_length.
bool has_pes_fields(uint8_t stream_id)
{
    constexpr uint8_t WITHOUT[] = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    return std::find(std::begin(WITHOUT), std::end(WITHOUT), stream_id) == std::end(WITHOUT);
}

// Types whose streams may have no PES packets: sections, and what others than ISO/IEC 13818-1 define.
bool is_private(uint8_t stream_type)
{
    constexpr uint8_t SECTIONS[] = {0x05, 0x0A, 0x0B, 0x0C, 0x0D, 0x13, 0x14, 0x16};
    constexpr uint8_t USER_PRIVATE = 0x80, AC3 = 0x81, EAC3[] = {0x84, 0x87};
    if (stream_type >= USER_PRIVATE)
        return stream_type != AC3 && stream_type != EAC3[0] && stream_type != EAC3[1];
    return std::find(std::begin(SECTIONS), std::end(SECTIONS), stream_type) != std::end(SECTIONS);
}

}  // namespace
