#include "ts_checker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr size_t CRC_SIZE = 4;
constexpr uint64_t PES_START = 1;     // packet_start_code_prefix
constexpr size_t PES_FIXED_SIZE = 9;  // up to PES_header_data_length
constexpr size_t PES_LENGTH_END = 6;  // behind it the bytes that PES_packet_length counts

uint32_t crc_of(const uint8_t *bytes, size_t size);
size_t missing_header(const Bytes &header);
bool begins_pes(const Bytes &header);

}  // namespace

/// Bytes still to be read. Once they didn't suffice, is_short stays set, and what was read is void.
struct TsChecker::View {
    const uint8_t *at;
    size_t left;
    bool is_short = false;

    View take(uint64_t size)
    {
        is_short = is_short || size > left;
        const View taken{at, is_short ? left : static_cast<size_t>(size)};
        at += taken.left;
        left -= taken.left;
        return taken;
    }
    uint64_t get(size_t size)
    {
        const View field = take(size);
        uint64_t value = 0;
        for (size_t i = 0; i < field.left; ++i)
            value = value << 8 | field.at[i];
        return value;
    }
    bool is_stuffing() const
    {
        return std::all_of(at, at + left, [](uint8_t byte) { return byte == 0xFF; });
    }
};

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
            check_packet({bytes, TS_PACKET_SIZE});
            ++m_packet;
        } else {
            taken = std::min(size, TS_PACKET_SIZE - m_piece_size);
            memcpy(m_piece.data() + m_piece_size, bytes, taken);
            m_piece_size += taken;
            if (m_piece_size == TS_PACKET_SIZE) {
                check_packet({m_piece.data(), TS_PACKET_SIZE});
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
        check_packet({m_piece.data(), m_piece_size});
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

void TsChecker::check_packet(View in)
{
    const View packet = in;
    const uint64_t sync_byte = in.get(1), head = in.get(2), control = in.get(1);
    const bool is_start = (head & 0x4000) != 0, has_payload = (control & 0x10) != 0;
    m_pid = head & 0x1FFF;
    if (sync_byte != 0x47) return complain("no sync byte");
    if (packet.left < TS_PACKET_SIZE) return complain("the packet is cut short");
    if ((head & 0x8000) != 0 || (control & 0xC0) != 0 || (control & 0x30) == 0)
        return complain("the packet is marked as damaged or scrambled, or has no content");
    if (m_pid == PID_NULL) return;

    m_pcr.reset();
    m_is_discontinuous = false;
    if ((control & 0x20) != 0) read_adaptation(in, has_payload);
    PidState &state = m_pids[m_pid];
    const bool is_same =
        state.has_last && memcmp(state.last.data(), packet.at, TS_PACKET_SIZE) == 0;
    const int counter_before = state.last[3] & 0x0F;
    const bool has_before = std::exchange(state.has_last, true);
    memcpy(state.last.data(), packet.at, TS_PACKET_SIZE);
    state.is_copy = has_payload && !state.is_copy && is_same;
    if (state.is_copy) return;
    if (m_pcr && state.is_clock) m_events.on_pcr(m_packet, *m_pcr, m_is_discontinuous);
    const int step =
        has_before ? (static_cast<int>(control) - counter_before) & 0x0F : int{has_payload};
    if (step != int{has_payload} && !m_is_discontinuous) complain("continuity_counter jumps");
    if (!has_payload) return;
    state.program ? read_section(state, is_start, in) : add_to_pes(state, is_start, in);
}

void TsChecker::read_adaptation(View &packet, bool has_payload)
{
    // A payload has at least a byte; without one all of the packet is adaptation field.
    const uint64_t length = packet.get(1);
    if (has_payload ? length >= packet.left : length != packet.left)
        complain("adaptation_field_length doesn't fit the packet");
    View in = packet.take(length);
    if (in.left == 0) return;

    const uint64_t flags = in.get(1);
    m_is_discontinuous = (flags & 0x80) != 0;
    if ((flags & 0x10) != 0) {
        const uint64_t field = in.get(6), extension = field & 0x1FF;
        if (extension >= 300) complain("the PCR extension is 300 or more");
        m_pcr = (field >> 15) * 300 + extension;
    }
    if (in.is_short) complain("the adaptation field is too short for its flags");
    if ((flags & 0x0F) != 0)
        note_unusual("unexpected flags of the adaptation field");
    else if (!in.is_stuffing())
        complain("the adaptation field has wrong stuffing");
}

void TsChecker::read_section(PidState &state, bool is_start, View in)
{
    if (is_start) in.take(in.get(1));  // pointer_field
    View section = in;
    const uint64_t head = in.get(3);  // up to section_length
    View body = in.take(head & 0x3FF);
    if (!is_start || in.is_short) return note_unusual("a section doesn't fit its packet");
    if (!in.is_stuffing()) note_unusual("bytes behind the section");
    section.left -= in.left;
    // Over a section with its own CRC_32 it is 0.
    if (crc_of(section.at, section.left) != 0) return complain("wrong CRC_32");

    const bool is_pat = m_pid == PID_PAT;
    const uint64_t id = body.get(2), version = body.get(1), numbers = body.get(2);
    View entries = body.take(body.left - CRC_SIZE);
    // table_id; section_syntax_indicator 1, then 0; 0 in front of the 10 bits of section_length;
    // current_next_indicator 1; section_number and last_section_number 0.
    const uint64_t expected = is_pat ? 0x008000 : 0x028000;
    if ((head & 0xFFCC00) != expected || (version & 1) == 0 || numbers != 0 || body.is_short)
        return note_unusual("the section's header is wrong");
    if (is_pat) m_events.on_pat(m_packet);
    const Bytes before = std::exchange(state.section, Bytes(section.at, section.at + section.left));
    if (before == state.section) return;
    if (!before.empty()) return note_unusual("the table changes");
    if (!is_pat && id != state.program) note_unusual("the PAT has another program_number");
    is_pat ? read_pat(entries) : read_pmt(entries);
    if (entries.is_short) complain("lengths in the section don't add up");
}

void TsChecker::read_pat(View &entries)
{
    while (entries.left > 0) {
        const uint64_t number = entries.get(2), pid = entries.get(2) & 0x1FFF;
        if (number == 0) {
            note_unusual("the PAT names a NIT");
            continue;
        }
        PidState &pmt = m_pids[static_cast<uint16_t>(pid)];
        if (pmt.has_last) note_unusual("a PMT comes before the PAT");
        pmt.program = number;
    }
}

void TsChecker::read_pmt(View &entries)
{
    PidState &clock = m_pids[entries.get(2) & 0x1FFF];
    clock.is_clock = clock.lacks_pcr = true;
    entries.take(entries.get(2) & 0xFFF);  // descriptors
    while (entries.left > 0) {
        const auto type = static_cast<uint8_t>(entries.get(1));
        const auto pid = static_cast<uint16_t>(entries.get(2) & 0x1FFF);
        PidState &stream = m_pids[pid];
        if (stream.is_listed) note_unusual("two streams on one PID");
        stream.is_listed = true;
        entries.take(entries.get(2) & 0xFFF);  // descriptors
        m_events.on_stream(pid, type);
    }
}

void TsChecker::add_to_pes(PidState &state, bool is_start, View in)
{
    // A PID that no PMT lists can carry anything, such as other tables.
    if (!state.is_listed && is_start && View(in).get(3) == PES_START)
        note_unusual("a PES packet that no PMT has announced");
    if (!state.is_listed) return;
    if (is_start) {
        finish_pes(state);
        state.is_open = true;
        state.pes = {};
        state.pes.pid = m_pid;
        state.pes.pcr = m_pcr;
        state.pes.first_packet = m_packet;
        m_events.on_pes_start(m_pid);
        if (std::exchange(state.lacks_pcr, false) && !m_pcr) note_unusual("PCR_PID without PCR");
    }
    if (!state.is_open) return note_unusual("payload in front of the start of a PES packet");

    state.total += in.left;
    for (size_t missing = 0; (missing = missing_header(state.header)) > 0 && in.left > 0;) {
        const View part = in.take(std::min(missing, in.left));
        state.header.insert(state.header.end(), part.at, part.at + part.left);
    }
    if (in.left == 0 || !begins_pes(state.header)) return;
    state.pes.payload_size += in.left;
    m_events.on_payload(m_pid, in.at, in.left);
}

void TsChecker::finish_pes(PidState &state)
{
    if (!std::exchange(state.is_open, false)) return;
    TsPes &pes = state.pes;
    const Bytes header = std::exchange(state.header, {});
    const uint64_t total = std::exchange(state.total, 0);
    View in{header.data(), header.size()};
    const uint64_t start = in.get(3), id = in.get(1), length = in.get(2);
    const uint64_t flags = in.get(2), times = flags >> 6 & 3;
    View fields = in.take(in.get(1));
    if (in.is_short || start != PES_START) {
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
    if (fields.is_short) complain("a PES_header_data_length is too small");
    // AC-3 of M2TS files has PES_extension_flag set and the extension's fields.
    if ((flags & 0x3E) != 0 || ((flags & 0x01) == 0 && !fields.is_stuffing()))
        note_unusual("unexpected fields of a PES header");
    m_events.on_pes_end(pes);
}

/// A PTS or DTS: the prefix, then 3, 15 and 15 bits, each with a marker bit behind it.
uint64_t TsChecker::read_time(View &in, uint64_t prefix)
{
    const uint64_t field = in.get(5);
    if (!in.is_short && (field >> 36 != prefix || (field & 0x100010001) != 0x100010001))
        complain("wrong prefix or marker bits of a PTS or DTS");
    return (field >> 33 & 7) << 30 | (field >> 17 & 0x7FFF) << 15 | (field >> 1 & 0x7FFF);
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

// Bytes of a PES header that are still to come, as far as what has come tells.
size_t missing_header(const Bytes &header)
{
    if (header.size() < PES_FIXED_SIZE) return PES_FIXED_SIZE - header.size();
    return PES_FIXED_SIZE + header[PES_FIXED_SIZE - 1] - header.size();
}

bool begins_pes(const Bytes &header)
{
    return header.size() >= PES_FIXED_SIZE && header[0] == 0 && header[1] == 0 && header[2] == 1;
}

/// Keeps everything.
class Reporter : public TsEvents {
public:
    TsReport report;

    void on_problem(const TsProblem &problem) override
    {
        char line[120];
        snprintf(line, sizeof line, "packet %zu, PID 0x%X: %s", static_cast<size_t>(problem.packet),
                 unsigned{problem.pid}, problem.what);
        report.problems.push_back(line);
    }
    void on_pat(uint64_t packet) override
    {
        report.pat_packets.push_back(static_cast<size_t>(packet));
    }
    void on_pes_start(uint16_t pid) override
    {
        m_open[pid] = report.pes.size();
        report.pes.emplace_back();
    }
    void on_payload(uint16_t pid, const uint8_t *bytes, size_t size) override
    {
        Bytes &payload = report.pes[m_open[pid]].payload;
        payload.insert(payload.end(), bytes, bytes + size);
    }
    void on_pes_end(const TsPes &pes) override
    {
        TsPes &kept = report.pes[m_open[pes.pid]];
        Bytes payload = std::move(kept.payload);
        kept = pes;
        kept.payload = std::move(payload);
    }

private:
    std::map<uint16_t, size_t> m_open;  // PID of a stream, and the index of its last in report.pes
};

}  // namespace

TsReport check_ts(const Bytes &stream)
{
    Reporter reporter;
    TsChecker checker(reporter);
    checker.feed(stream.data(), stream.size());
    checker.finish();
    return std::move(reporter.report);
}
