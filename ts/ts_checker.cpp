#include "ts_checker.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "ts_time.h"

namespace {

constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr uint64_t EXTENSIONS = PCR_PER_TICK;  // values of program_clock_reference_extension
constexpr size_t CRC_SIZE = 4;
constexpr size_t SECTION_HEAD_SIZE = 3;  // up to section_length
constexpr uint8_t SECTION_STUFFING = 0xFF;
constexpr uint64_t PES_START = 1;     // packet_start_code_prefix
constexpr size_t PES_FIXED_SIZE = 9;  // up to PES_header_data_length
constexpr uint64_t EXTENDED_STREAM_ID = 0xFD;
constexpr size_t PES_LENGTH_END = 6;  // after it the bytes that PES_packet_length counts

uint32_t crc_of(const uint8_t *bytes, size_t size);
size_t size_of_section(const Bytes &section);
size_t missing_header(const Bytes &header);
bool begins_pes(const Bytes &header);
uint8_t type_by_descriptors(uint8_t stream_type, ByteView descriptors);
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

void TsChecker::read_sections(PidState &state, bool f_start, ByteView in)
{
    if (!state.section.empty()) {
        ByteView rest = f_start ? in.take(in.get(1)) : in;
        add_to_section(state, rest);
    } else if (f_start) {
        in.take(in.get(1));  // pointer_field
    }
    if (!f_start || in.f_short) return note_unusual("a section doesn't fit its packet");
    state.section.clear();
    while (in.left > 0 && *in.at != SECTION_STUFFING)
        add_to_section(state, in);
    if (!in.is_stuffing()) note_unusual("bytes after the section");
}

// Takes what there is of the section that is open, or begins.
void TsChecker::add_to_section(PidState &state, ByteView &in)
{
    Bytes &section = state.section;
    while (in.left > 0 && section.size() < size_of_section(section)) {
        const ByteView part = in.take(std::min(size_of_section(section) - section.size(), in.left));
        section.insert(section.end(), part.at, part.at + part.left);
    }
    if (section.size() < size_of_section(section))
        return note_unusual("a section doesn't fit its packet");
    read_section(state, std::exchange(section, {}));
}

void TsChecker::read_section(PidState &state, const Bytes &section)
{
    const bool f_pat = m_pid == PID_PAT;
    ByteView in{section.data(), section.size()};
    const uint64_t head = in.get(SECTION_HEAD_SIZE);
    // A PMT's PID may carry other tables as well.
    if (head >> 16 != (f_pat ? 0 : 2)) return note_unusual("the section's header is wrong");
    // Over a section with its own CRC_32 it is 0.
    if (crc_of(section.data(), section.size()) != 0)
        return complain(rules::TABLE_CRC, "wrong CRC_32");

    const uint64_t id = in.get(2), version = in.get(1), numbers = in.get(2);
    // section_syntax_indicator 1, then 0; 0 before the 10 bits of section_length;
    // current_next_indicator 1; section_number and last_section_number 0.
    if ((head & 0xCC00) != 0x8000 || (version & 1) == 0 || numbers != 0 || in.left < CRC_SIZE)
        return note_unusual("the section's header is wrong");
    ByteView entries = in.take(in.left - CRC_SIZE);
    if (!f_pat && id != state.program) return note_unusual("the PAT has another program_number");
    f_pat ? m_events.on_pat(m_packet) : m_events.on_pmt(m_packet, m_pid);
    const Bytes before = std::exchange(state.table, section);
    if (before == state.table) return;
    constexpr size_t VERSION_AT = 5;
    if (!before.empty()) {
        note_unusual("the table changes");
        if (before[VERSION_AT] == section[VERSION_AT]) complain(rules::TABLE_VERSION);
    }
    f_pat ? read_pat(entries) : read_pmt(entries);
    if (entries.f_short) complain("lengths in the section don't add up");
}

void TsChecker::read_pat(ByteView &entries)
{
    uint64_t programs = 0;
    std::optional<TsProgram> first;
    for (auto &[pid, state] : m_pids)
        if (pid != PID_PAT) state.program.reset();
    while (entries.left > 0) {
        const uint64_t number = entries.get(2);
        const auto pid = static_cast<uint16_t>(entries.get(2) & 0x1FFF);
        if (entries.f_short) return;
        if (number == 0) {
            note_unusual("the PAT names a NIT");
            continue;
        }
        ++programs;
        if (!first) first = TsProgram{number, pid, 0};
        if (m_programs == Programs::FIRST && number != first->number) continue;
        PidState &pmt = m_pids[pid];
        if (pmt.f_last && pmt.table.empty()) note_unusual("a PMT comes before the PAT");
        pmt.program = number;
    }
    if (!first) return;
    first->others = programs - 1;
    m_events.on_program(*first);
}

void TsChecker::read_pmt(ByteView &entries)
{
    const uint16_t pmt_pid = m_pid;
    const auto clock_pid = static_cast<uint16_t>(entries.get(2) & 0x1FFF);
    if (m_programs == Programs::FIRST)
        for (auto &[pid, state] : m_pids)
            state.f_clock = false;
    PidState &clock = m_pids[clock_pid];
    if (!std::exchange(clock.f_clock, true)) clock.f_lacks_pcr = true;
    m_events.on_clock(clock_pid);
    entries.take(entries.get(2) & 0xFFF);  // descriptors
    std::map<uint16_t, uint8_t> streams;
    while (entries.left > 0) {
        const auto type = static_cast<uint8_t>(entries.get(1));
        const auto pid = static_cast<uint16_t>(entries.get(2) & 0x1FFF);
        const ByteView descriptors = entries.take(entries.get(2) & 0xFFF);
        if (entries.f_short) return;
        const PidState &stream = m_pids[pid];
        const bool f_other = stream.pmt && stream.pmt != pmt_pid;
        if (f_other || !streams.emplace(pid, type_by_descriptors(type, descriptors)).second)
            note_unusual("two streams on one PID");
    }
    // Streams that the table doesn't list any more end here.
    for (auto &[pid, state] : m_pids) {
        if (state.pmt != pmt_pid || streams.count(pid) != 0) continue;
        m_pid = pid;
        finish_pes(state);
        state.pmt.reset();
    }
    m_pid = pmt_pid;
    for (const auto &[pid, type] : streams) {
        PidState &state = m_pids[pid];
        const bool f_known = state.pmt.has_value() && state.stream_type == type;
        state.pmt = pmt_pid;
        state.stream_type = type;
        if (!f_known) m_events.on_stream(pid, type);
    }
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

// CRC-32/MPEG-2: most significant bit first.
uint32_t crc_of(const uint8_t *bytes, size_t size)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t *end = bytes + size; bytes != end; ++bytes) {
        for (int bit = 7; bit >= 0; --bit)
            crc = crc << 1 ^ (crc >> 31 != (*bytes >> bit & 1U) ? 0x04C11DB7 : 0);
    }
    return crc;
}

// As far as what has come shows.
size_t size_of_section(const Bytes &section)
{
    if (section.size() < SECTION_HEAD_SIZE) return SECTION_HEAD_SIZE;
    return SECTION_HEAD_SIZE + ((section[1] & 3U) << 8 | section[2]);
}

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

// ETSI EN 300 468: AC-3 and E-AC-3 of DVB are private data with a descriptor.
uint8_t type_by_descriptors(uint8_t stream_type, ByteView descriptors)
{
    constexpr uint8_t PRIVATE_DATA = 0x06, AC3_DESCRIPTOR = 0x6A, EAC3_DESCRIPTOR = 0x7A;
    if (stream_type != PRIVATE_DATA) return stream_type;
    while (descriptors.left > 0) {
        const uint64_t tag = descriptors.get(1);
        descriptors.take(descriptors.get(1));
        if (tag == AC3_DESCRIPTOR) return 0x81;
        if (tag == EAC3_DESCRIPTOR) return 0x87;
    }
    return stream_type;
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
