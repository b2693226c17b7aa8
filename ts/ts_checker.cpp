#include "ts_checker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ts_time.h"

namespace {

constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr uint64_t EXTENSIONS = PCR_PER_TICK;  // values of program_clock_reference_extension
constexpr size_t CRC_SIZE = 4;
constexpr uint64_t PES_START = 1;     // packet_start_code_prefix
constexpr size_t PES_FIXED_SIZE = 9;  // up to PES_header_data_length
constexpr size_t PES_LENGTH_END = 6;  // after it the bytes that PES_packet_length counts

uint32_t crc_of(const uint8_t *bytes, size_t size);
size_t missing_header(const Bytes &header);
bool begins_pes(const Bytes &header);

}  // namespace

TsChecker::TsChecker(TsEvents &events)
    : m_events(events)
{
    m_pids[PID_PAT].program = 0;
}

void TsChecker::feed(const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        size_t taken = TS_PACKET_SIZE;
        if (m_piece_size == 0 && size >= TS_PACKET_SIZE) {
            check_packet(TsPacket(bytes));
            ++m_packet;
        } else {
            taken = std::min(size, TS_PACKET_SIZE - m_piece_size);
            memcpy(m_piece.data() + m_piece_size, bytes, taken);
            m_piece_size += taken;
            if (m_piece_size == TS_PACKET_SIZE) {
                check_packet(TsPacket(m_piece.data()));
                ++m_packet;
                m_piece_size = 0;
            }
        }
        bytes += taken;
        size -= taken;
    }
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
        complain(piece.has_sync_byte() ? "the packet is cut short" : "no sync byte");
        ++m_packet;
        m_piece_size = 0;
    }
    for (auto &[pid, state] : m_pids) {
        m_pid = pid;
        finish_pes(state);
        if (state.program && state.section.empty()) complain("its PAT or PMT is missing");
    }
}

void TsChecker::complain(const char *problem)
{
    m_events.on_problem({m_packet, m_pid, problem, false});
}

void TsChecker::note_unusual(const char *problem)
{
    m_events.on_problem({m_packet, m_pid, problem, true});
}

void TsChecker::check_packet(const TsPacket &packet)
{
    const bool f_payload = packet.has_payload();
    m_pid = packet.pid();
    if (!packet.has_sync_byte()) return complain("no sync byte");
    if (packet.is_damaged() || packet.is_scrambled() ||
        !(f_payload || packet.has_adaptation_field()))
        return complain("the packet is marked as damaged or scrambled, or has no content");
    if (m_pid == PID_NULL) return;

    m_pcr.reset();
    m_f_discontinuous = false;
    ByteView in{packet.bytes() + TS_HEADER_SIZE, TS_PACKET_SIZE - TS_HEADER_SIZE};
    if (packet.has_adaptation_field()) read_adaptation(in, f_payload);
    PidState &state = m_pids[m_pid];
    const bool f_same =
        state.f_last && memcmp(state.last.data(), packet.bytes(), TS_PACKET_SIZE) == 0;
    const int counter_before = TsPacket(state.last.data()).counter();
    const bool f_before = std::exchange(state.f_last, true);
    memcpy(state.last.data(), packet.bytes(), TS_PACKET_SIZE);
    state.f_copy = f_payload && !state.f_copy && f_same;
    if (state.f_copy) return;
    if (m_pcr && state.f_clock) m_events.on_pcr(m_packet, *m_pcr, m_f_discontinuous);
    const int step = f_before ? (packet.counter() - counter_before) & 0x0F : int{f_payload};
    if (step != int{f_payload} && !m_f_discontinuous) complain("continuity_counter jumps");
    if (!f_payload) return;
    state.program ? read_section(state, packet.is_start(), in)
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

void TsChecker::read_section(PidState &state, bool f_start, ByteView in)
{
    if (f_start) in.take(in.get(1));  // pointer_field
    ByteView section = in;
    const uint64_t head = in.get(3);  // up to section_length
    ByteView body = in.take(head & 0x3FF);
    if (!f_start || in.f_short) return note_unusual("a section doesn't fit its packet");
    if (!in.is_stuffing()) note_unusual("bytes after the section");
    section.left -= in.left;
    // Over a section with its own CRC_32 it is 0.
    if (crc_of(section.at, section.left) != 0) return complain("wrong CRC_32");

    const bool f_pat = m_pid == PID_PAT;
    const uint64_t id = body.get(2), version = body.get(1), numbers = body.get(2);
    ByteView entries = body.take(body.left - CRC_SIZE);
    // table_id; section_syntax_indicator 1, then 0; 0 before the 10 bits of section_length;
    // current_next_indicator 1; section_number and last_section_number 0.
    const uint64_t expected = f_pat ? 0x008000 : 0x028000;
    if ((head & 0xFFCC00) != expected || (version & 1) == 0 || numbers != 0 || body.f_short)
        return note_unusual("the section's header is wrong");
    if (f_pat) m_events.on_pat(m_packet);
    const Bytes before = std::exchange(state.section, Bytes(section.at, section.at + section.left));
    if (before == state.section) return;
    if (!before.empty()) return note_unusual("the table changes");
    if (!f_pat && id != state.program) note_unusual("the PAT has another program_number");
    f_pat ? read_pat(entries) : read_pmt(entries);
    if (entries.f_short) complain("lengths in the section don't add up");
}

void TsChecker::read_pat(ByteView &entries)
{
    while (entries.left > 0) {
        const uint64_t number = entries.get(2), pid = entries.get(2) & 0x1FFF;
        if (number == 0) {
            note_unusual("the PAT names a NIT");
            continue;
        }
        PidState &pmt = m_pids[static_cast<uint16_t>(pid)];
        if (pmt.f_last) note_unusual("a PMT comes before the PAT");
        pmt.program = number;
    }
}

void TsChecker::read_pmt(ByteView &entries)
{
    PidState &clock = m_pids[entries.get(2) & 0x1FFF];
    clock.f_clock = clock.f_lacks_pcr = true;
    entries.take(entries.get(2) & 0xFFF);  // descriptors
    while (entries.left > 0) {
        const auto type = static_cast<uint8_t>(entries.get(1));
        const auto pid = static_cast<uint16_t>(entries.get(2) & 0x1FFF);
        PidState &stream = m_pids[pid];
        if (stream.f_listed) note_unusual("two streams on one PID");
        stream.f_listed = true;
        entries.take(entries.get(2) & 0xFFF);  // descriptors
        m_events.on_stream(pid, type);
    }
}

void TsChecker::add_to_pes(PidState &state, bool f_start, ByteView in)
{
    // A PID that no PMT lists can carry anything, such as other tables.
    if (!state.f_listed && f_start && ByteView(in).get(3) == PES_START)
        note_unusual("a PES packet that no PMT has announced");
    if (!state.f_listed) return;
    if (f_start) {
        finish_pes(state);
        state.f_open = true;
        state.pes = {};
        state.pes.pid = m_pid;
        state.pes.pcr = m_pcr;
        state.pes.first_packet = m_packet;
        m_events.on_pes_start(m_pid);
        if (std::exchange(state.f_lacks_pcr, false) && !m_pcr) note_unusual("PCR_PID without PCR");
    }
    if (!state.f_open) return note_unusual("payload before the start of a PES packet");

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
    if (in.f_short || start != PES_START) {
        complain(start != PES_START ? "a PES packet has no packet_start_code_prefix"
                                    : "a PES packet is shorter than its header");
        return m_events.on_pes_end(pes);
    }
    pes.stream_id = static_cast<uint8_t>(id);
    pes.length = static_cast<uint16_t>(length);
    pes.size = total - PES_LENGTH_END;
    // Only video may leave its length open, with 0.
    if (length != (pes.size & 0xFFFF) && (length != 0 || (id & 0xF0) != 0xE0))
        complain("a PES_packet_length is wrong");
    // The header begins with '10', and PTS_DTS_flags isn't '01'.
    if ((flags & 0xC000) != 0x8000 || times == 1) complain("wrong flags of a PES header");
    if (times >= 2) pes.pts = read_time(fields, times);
    if (times == 3) read_time(fields, 1);  // DTS
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

}  // namespace
