#include "ts_checker.h"

#include <cstdio>
#include <map>
#include <utility>

namespace {

constexpr size_t PACKET_SIZE = 188;
constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr size_t CRC_SIZE = 4;
constexpr uint64_t PES_START = 1;  // packet_start_code_prefix

/// Bytes still to be read. Once they didn't suffice, is_short stays set, and what was read is void.
struct View {
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
        uint64_t value = 0;
        for (const uint8_t byte : take(size).bytes())
            value = value << 8 | byte;
        return value;
    }
    Bytes bytes() const { return Bytes(at, at + left); }
    bool is_stuffing() const { return bytes() == Bytes(left, 0xFF); }
};

struct PidState {
    Bytes last;                       // the packet before
    bool is_copy = false;             // of the one before it
    bool is_listed = false;           // by a PMT, as a stream
    bool lacks_pcr = false;           // though a PMT has named it PCR_PID
    std::optional<uint64_t> program;  // whose PMT this PID brings; 0: the PAT
    Bytes section;                    // the PAT or PMT, once it has come
    std::optional<size_t> pes;        // index of the open one in the report
};

class Checker {
public:
    TsReport run(View stream)
    {
        m_pids[PID_PAT].program = 0;
        for (; stream.left > 0; ++m_packet)
            check_packet(stream.take(PACKET_SIZE));
        for (auto &[pid, state] : m_pids) {
            m_pid = pid;
            finish_pes(state);
            if (state.program && state.section.empty()) complain("its PAT or PMT is missing");
        }
        return std::move(m_report);
    }

private:
    TsReport m_report;
    std::map<uint16_t, PidState> m_pids;

    // Of the present packet
    size_t m_packet = 0;
    uint16_t m_pid = 0;
    bool m_is_discontinuous = false;
    std::optional<uint64_t> m_pcr;

    void complain(const char *problem)
    {
        char line[120];
        snprintf(line, sizeof line, "packet %zu, PID 0x%X: %s", m_packet, unsigned{m_pid}, problem);
        m_report.problems.push_back(line);
    }

    void check_packet(View in)
    {
        const View packet = in;
        const uint64_t sync_byte = in.get(1), head = in.get(2), control = in.get(1);
        const bool is_start = (head & 0x4000) != 0, has_payload = (control & 0x10) != 0;
        m_pid = head & 0x1FFF;
        if (sync_byte != 0x47) return complain("no sync byte");
        if (packet.left < PACKET_SIZE) return complain("the packet is cut short");
        if ((head & 0x8000) != 0 || (control & 0xC0) != 0 || (control & 0x30) == 0)
            return complain("the packet is marked as damaged or scrambled, or has no content");
        if (m_pid == PID_NULL) return;

        m_pcr.reset();
        m_is_discontinuous = false;
        if ((control & 0x20) != 0) read_adaptation(in, has_payload);
        PidState &state = m_pids[m_pid];
        const Bytes last = std::exchange(state.last, packet.bytes());
        state.is_copy = has_payload && !state.is_copy && last == state.last;
        if (state.is_copy) return;
        const int step = last.empty() ? has_payload : (state.last[3] - last[3]) & 0x0F;
        if (step != has_payload && !m_is_discontinuous) complain("continuity_counter jumps");
        if (!has_payload) return;
        state.program ? read_section(state, is_start, in) : add_to_pes(state, is_start, in);
    }

    void read_adaptation(View &packet, bool has_payload)
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
        if ((flags & 0x0F) != 0) complain("unexpected flags of the adaptation field");
        if (in.is_short) complain("the adaptation field is too short for its flags");
        if (!in.is_stuffing()) complain("the adaptation field has wrong stuffing");
    }

    void read_section(PidState &state, bool is_start, View in)
    {
        if (is_start) in.take(in.get(1));  // pointer_field
        View section = in;
        const uint64_t head = in.get(3);  // up to section_length
        View body = in.take(head & 0x3FF);
        if (!is_start || in.is_short) return complain("a section doesn't fit its packet");
        if (!in.is_stuffing()) complain("bytes behind the section");
        section.left -= in.left;
        if (crc_of(section.bytes()) != 0) return complain("wrong CRC_32");

        const bool is_pat = m_pid == PID_PAT;
        const uint64_t id = body.get(2), version = body.get(1), numbers = body.get(2);
        View entries = body.take(body.left - CRC_SIZE);
        // table_id; section_syntax_indicator 1, then 0; 0 in front of the 10 bits of section_length;
        // current_next_indicator 1; section_number and last_section_number 0.
        const uint64_t expected = is_pat ? 0x008000 : 0x028000;
        if ((head & 0xFFCC00) != expected || (version & 1) == 0 || numbers != 0 || body.is_short)
            return complain("the section's header is wrong");
        if (is_pat) m_report.pat_packets.push_back(m_packet);
        const Bytes before = std::exchange(state.section, section.bytes());
        if (before == state.section) return;
        if (!before.empty()) return complain("the table changes");
        if (!is_pat && id != state.program) complain("the PAT has another program_number");
        is_pat ? read_pat(entries) : read_pmt(entries);
        if (entries.is_short) complain("lengths in the section don't add up");
    }

    /// Over a section with its own CRC_32 it is 0.
    static uint32_t crc_of(const Bytes &section)
    {
        uint32_t crc = 0xFFFFFFFF;
        for (const uint8_t byte : section) {
            for (int bit = 7; bit >= 0; --bit)
                crc = crc << 1 ^ (crc >> 31 != (byte >> bit & 1U) ? 0x04C11DB7 : 0);
        }
        return crc;
    }

    void read_pat(View &entries)
    {
        while (entries.left > 0) {
            const uint64_t number = entries.get(2);
            PidState &pmt = m_pids[entries.get(2) & 0x1FFF];
            if (!pmt.last.empty()) complain("a PMT comes before the PAT");
            pmt.program = number;
        }
    }

    void read_pmt(View &entries)
    {
        m_pids[entries.get(2) & 0x1FFF].lacks_pcr = true;
        entries.take(entries.get(2) & 0xFFF);  // descriptors
        while (entries.left > 0) {
            entries.get(1);  // stream_type
            PidState &stream = m_pids[entries.get(2) & 0x1FFF];
            if (stream.is_listed) complain("two streams on one PID");
            stream.is_listed = true;
            entries.take(entries.get(2) & 0xFFF);  // descriptors
        }
    }

    void add_to_pes(PidState &state, bool is_start, const View &in)
    {
        // A PID that no PMT lists can carry anything, such as other tables.
        if (!state.is_listed && is_start && View(in).get(3) == PES_START)
            complain("a PES packet that no PMT has announced");
        if (!state.is_listed) return;
        if (is_start) {
            finish_pes(state);
            state.pes = m_report.pes.size();
            m_report.pes.push_back({m_pid, 0, {}, m_pcr, {}});
            if (std::exchange(state.lacks_pcr, false) && !m_pcr) complain("PCR_PID without PCR");
        }
        if (!state.pes) return complain("payload in front of the first PES packet");
        Bytes &payload = m_report.pes[*state.pes].payload;
        payload.insert(payload.end(), in.at, in.at + in.left);
    }

    void finish_pes(const PidState &state)
    {
        if (!state.pes) return;
        TsPes &pes = m_report.pes[*state.pes];
        const Bytes whole = std::exchange(pes.payload, {});
        View in{whole.data(), whole.size()};
        const uint64_t start = in.get(3), id = in.get(1), length = in.get(2), found = in.left;
        const uint64_t flags = in.get(2), times = flags >> 6 & 3;
        View fields = in.take(in.get(1));
        if (start != PES_START) return complain("a PES packet has no packet_start_code_prefix");
        if (in.is_short) return complain("a PES packet is shorter than its header");
        pes.stream_id = static_cast<uint8_t>(id);
        pes.payload = in.bytes();
        // Only video may leave its length open, with 0.
        if (length != (found & 0xFFFF) && (length != 0 || (id & 0xF0) != 0xE0))
            complain("a PES_packet_length is wrong");
        // The header begins with '10', and PTS_DTS_flags isn't '01'.
        if ((flags & 0xC000) != 0x8000 || times == 1) complain("wrong flags of a PES header");
        if (times >= 2) pes.pts = read_time(fields, times);
        if (times == 3) read_time(fields, 1);  // DTS
        if (fields.is_short) complain("a PES_header_data_length is too small");
        // AC-3 of M2TS files has PES_extension_flag set and the extension's fields.
        if ((flags & 0x3E) != 0 || ((flags & 0x01) == 0 && !fields.is_stuffing()))
            complain("unexpected fields of a PES header");
    }

    /// A PTS or DTS: the prefix, then 3, 15 and 15 bits, each with a marker bit behind it.
    uint64_t read_time(View &in, uint64_t prefix)
    {
        const uint64_t field = in.get(5);
        if (!in.is_short && (field >> 36 != prefix || (field & 0x100010001) != 0x100010001))
            complain("wrong prefix or marker bits of a PTS or DTS");
        return (field >> 33 & 7) << 30 | (field >> 17 & 0x7FFF) << 15 | (field >> 1 & 0x7FFF);
    }
};

}  // namespace

TsReport check_ts(const Bytes &stream)
{
    return Checker().run({stream.data(), stream.size()});
}
