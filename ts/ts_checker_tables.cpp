// The part of the checker that reads the PAT and the PMT.

#include <algorithm>
#include <utility>

#include "ts_checker.h"

namespace {

constexpr uint16_t PID_PAT = 0;
constexpr size_t CRC_SIZE = 4;
constexpr size_t SECTION_HEAD_SIZE = 3;  // up to section_length
constexpr uint8_t SECTION_STUFFING = 0xFF;

uint32_t crc_of(const uint8_t *bytes, size_t size);
size_t size_of_section(const Bytes &section);
uint8_t type_by_descriptors(uint8_t stream_type, ByteView descriptors);

}  // namespace

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
    // Programs that are gone take their streams with them.
    const uint16_t pat_pid = m_pid;
    for (auto &[pid, state] : m_pids) {
        if (!state.program) state.table.clear();
        if (!state.pmt || m_pids[*state.pmt].program) continue;
        m_pid = pid;
        finish_pes(state);
        state.pmt.reset();
    }
    m_pid = pat_pid;
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

}  // namespace
