#include "ts_checker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

namespace {

typedef std::vector<uint8_t> Bytes;

constexpr size_t PACKET_SIZE = 188;
constexpr size_t HEADER_SIZE = 4;
constexpr uint16_t PID_PAT = 0;
constexpr uint16_t PID_NULL = 0x1FFF;
constexpr uint8_t STUFFING_BYTE = 0xFF;
constexpr uint8_t TABLE_PAT = 0;
constexpr uint8_t TABLE_PMT = 2;
constexpr uint8_t TABLE_STUFFING = 0xFF;
constexpr size_t MOST_PROBLEMS = 1000;

/// Bytes still to be read. Once they don't suffice, every read is 0 and is_short stays set.
struct View {
    const uint8_t *at;
    size_t left;
    bool is_short = false;

    View take(size_t size)
    {
        is_short = is_short || size > left;
        if (is_short) size = left = 0;
        const View taken{at, size};
        at += size;
        left -= size;
        return taken;
    }
    uint64_t get(size_t size)
    {
        const View taken = take(size);
        uint64_t value = 0;
        for (size_t i = 0; i < taken.left; ++i)
            value = value << 8 | taken.at[i];
        return value;
    }
    uint8_t u8() { return static_cast<uint8_t>(get(1)); }
    uint16_t u16() { return static_cast<uint16_t>(get(2)); }
    bool is_stuffing() const
    {
        return std::all_of(at, at + left, [](uint8_t each) { return each == STUFFING_BYTE; });
    }
    void append_to(Bytes &bytes) const { bytes.insert(bytes.end(), at, at + left); }
    Bytes bytes() const { return Bytes(at, at + left); }
};

/// Steps over the fields that flags announces: pairs of a flag and a size, 0 for a length byte.
void skip_optional(View &in, uint8_t flags, std::initializer_list<std::pair<int, size_t>> fields)
{
    for (const auto &[flag, size] : fields) {
        if ((flags & flag) != 0) in.take(size != 0 ? size : in.u8());
    }
}

struct AdaptationField {
    bool is_sound = true;
    bool is_discontinuous = false;
    std::optional<uint64_t> pcr;
};

struct PidState {
    std::optional<uint8_t> counter;
    const uint8_t *last = nullptr;  // the last packet, if it had a payload
    bool is_repeated = false;       // the last packet was a copy of the one before
    bool has_pcr = false;
    Bytes section;              // begun, not complete yet
    std::optional<size_t> pes;  // index of the open one in the report
    bool is_listed = false;     // by a PMT
};

class Checker {
public:
    TsReport run(View stream)
    {
        for (; stream.left >= PACKET_SIZE; ++m_packet)
            check_packet(stream.take(PACKET_SIZE).at);
        m_report.packets = m_packet;
        if (stream.left > 0) complain(PID_NULL, "the last packet is cut short");
        for (auto &[pid, state] : m_pids)
            finish_pes(state);
        if (m_packet > 0 && m_report.programs.empty()) complain(PID_PAT, "there is no PAT");
        for (const TsProgram &program : m_report.programs) {
            const auto clock = m_pids.find(program.pcr_pid);
            if (program.section.empty())
                complain(program.pmt_pid, "there is no PMT");
            else if (clock != m_pids.end() && clock->second.counter && !clock->second.has_pcr)
                complain(program.pcr_pid, "the PCR_PID brings no PCR");
        }
        return std::move(m_report);
    }

private:
    TsReport m_report;
    size_t m_packet = 0;  // the number of the present one
    std::map<uint16_t, PidState> m_pids;

    void complain(uint16_t pid, const std::string &text)
    {
        if (m_report.problems.size() == MOST_PROBLEMS) return;
        char place[48];
        snprintf(place, sizeof place, "packet %zu, PID 0x%X: ", m_packet, unsigned{pid});
        m_report.problems.push_back(place + text);
    }

    void check_packet(const uint8_t *packet)
    {
        View in{packet, PACKET_SIZE};
        const uint8_t sync_byte = in.u8();
        const uint16_t head = in.u16();
        const uint16_t pid = head & 0x1FFF;
        const uint8_t control = in.u8();
        const bool has_payload = (control & 0x10) != 0;
        if (sync_byte != 0x47) return complain(PID_NULL, "no sync byte");
        if ((head & 0x8000) != 0) return complain(pid, "transport_error_indicator is set");
        if ((control & 0x30) == 0) return complain(pid, "adaptation_field_control is 0");
        if (pid == PID_NULL) return;

        AdaptationField field;
        if ((control & 0x20) != 0) field = read_adaptation(pid, in, has_payload);
        PidState &state = m_pids[pid];
        if (!is_new(state, pid, packet, field) || !field.is_sound) return;
        state.has_pcr = state.has_pcr || field.pcr;
        if (!has_payload) return;

        const bool is_start = (head & 0x4000) != 0;
        const bool is_psi = pid == PID_PAT || program_of(pid) != nullptr;
        if ((control & 0xC0) != 0) {
            if (is_psi) complain(pid, "a table is scrambled");
        } else if (is_psi) {
            add_to_sections(state, pid, is_start, in);
        } else {
            add_to_pes(state, pid, is_start, in, field);
        }
    }

    AdaptationField read_adaptation(uint16_t pid, View &packet, bool has_payload)
    {
        AdaptationField field;
        const size_t length = packet.u8();
        // A payload has at least a byte; without one all of the packet is adaptation field.
        field.is_sound = has_payload ? length < packet.left : length == packet.left;
        if (!field.is_sound) complain(pid, "adaptation_field_length doesn't fit the packet");
        if (!field.is_sound || length == 0) return field;

        View in = packet.take(length);
        const uint8_t flags = in.u8();
        field.is_discontinuous = (flags & 0x80) != 0;
        if ((flags & 0x10) != 0) {
            const uint64_t pcr = in.get(6);
            const uint64_t extension = pcr & 0x1FF;
            if (extension >= 300) complain(pid, "the PCR extension is 300 or more");
            field.pcr = (pcr >> 15) * 300 + extension;
        }
        // OPCR, splice_countdown, transport_private_data, adaptation_field_extension
        skip_optional(in, flags, {{0x08, 6}, {0x04, 1}, {0x02, 0}, {0x01, 0}});
        field.is_sound = !in.is_short;
        if (in.is_short) complain(pid, "the adaptation field is too short for its flags");
        if (!in.is_stuffing()) complain(pid, "stuffing of the adaptation field isn't 0xFF");
        return field;
    }

    /// Looks at the continuity counter. False for the one copy of a packet that is allowed.
    bool is_new(PidState &state, uint16_t pid, const uint8_t *packet, const AdaptationField &field)
    {
        const bool has_payload = (packet[3] & 0x10) != 0;
        const uint8_t counter = packet[3] & 0x0F;
        const uint8_t *last = std::exchange(state.last, has_payload ? packet : nullptr);
        const std::optional<uint8_t> before = std::exchange(state.counter, counter);
        const bool was_repeated = std::exchange(state.is_repeated, false);
        if (!before) return true;

        if (has_payload && last != nullptr && !was_repeated) {
            // Copies are equal but for the PCR.
            const size_t head = field.pcr ? HEADER_SIZE + 2 : HEADER_SIZE;
            const size_t tail = field.pcr ? head + 6 : head;
            state.is_repeated = memcmp(packet, last, head) == 0 &&
                                memcmp(packet + tail, last + tail, PACKET_SIZE - tail) == 0;
            if (state.is_repeated) return false;
        }
        const uint8_t expected = has_payload ? (*before + 1) & 0x0F : *before;
        if (counter != expected && !field.is_discontinuous) {
            complain(pid, "continuity_counter is " + std::to_string(counter) + ", expected " +
                              std::to_string(expected));
            state.section.clear();
        }
        return true;
    }

    void add_to_sections(PidState &state, uint16_t pid, bool is_start, View payload)
    {
        if (is_start) {
            const View tail = payload.take(payload.u8());  // pointer_field
            if (payload.is_short) complain(pid, "pointer_field points out of the packet");
            if (!state.section.empty()) tail.append_to(state.section);
            read_sections(state, pid);
            if (!state.section.empty()) complain(pid, "a section is cut short");
            if (pid == PID_PAT) m_report.pat_packets.push_back(m_packet);
            state.section.clear();
        } else if (state.section.empty()) {
            return;
        }
        payload.append_to(state.section);
        read_sections(state, pid);
    }

    /// Takes the complete ones away.
    void read_sections(PidState &state, uint16_t pid)
    {
        View in{state.section.data(), state.section.size()};
        while (in.left >= 3 && in.at[0] != TABLE_STUFFING) {
            const size_t size = 3 + ((size_t{in.at[1]} << 8 | in.at[2]) & 0xFFF);
            if (size > in.left) break;
            read_section(pid, in.take(size).bytes());
        }
        const bool is_end = in.left > 0 && in.at[0] == TABLE_STUFFING;
        if (is_end && !in.is_stuffing()) complain(pid, "bytes behind the last section");
        state.section = is_end ? Bytes() : in.bytes();
    }

    void read_section(uint16_t pid, const Bytes &section)
    {
        // Over a section with its own CRC_32 the result is 0.
        uint32_t crc = 0xFFFFFFFF;
        for (uint8_t byte : section) {
            crc ^= uint32_t{byte} << 24;
            for (int bit = 0; bit < 8; ++bit)
                crc = crc << 1 ^ ((crc >> 31) != 0 ? 0x04C11DB7U : 0);
        }
        if (section.size() < 4 || crc != 0) return complain(pid, "wrong CRC_32");

        View in{section.data(), section.size() - 4};
        const uint8_t table = in.u8();
        const uint16_t syntax = in.u16();
        const uint16_t id = in.u16();
        const uint8_t version = in.u8();
        const uint8_t number = in.u8();
        const uint8_t last_number = in.u8();
        const bool is_pat = pid == PID_PAT;
        // section_syntax_indicator 1, then 0, and the two high bits of section_length 0
        if (in.is_short || (syntax & 0xCC00) != 0x8000 || number > last_number)
            return complain(pid, "a section's header is wrong");
        if (table != (is_pat ? TABLE_PAT : TABLE_PMT)) return complain(pid, "wrong table_id");
        if ((version & 1) == 0) return;  // current_next_indicator: not valid yet
        if (is_pat) return read_pat(in);
        TsProgram *program = program_of(pid, id);
        if (program == nullptr) return complain(pid, "a PMT of a program that the PAT lacks");
        read_pmt(*program, section, in);
    }

    void read_pat(View body)
    {
        while (body.left > 0) {
            const uint16_t number = body.u16();
            const uint16_t pid = body.u16() & 0x1FFF;
            if (body.is_short) return complain(PID_PAT, "the PAT is cut inside an entry");
            if (number == 0 || program_of(pid, number) != nullptr)
                continue;  // 0: the network's PID
            if (m_pids.count(pid) != 0) complain(pid, "the PMT comes before the PAT");
            m_report.programs.push_back({number, pid, 0, {}, {}});
        }
    }

    void read_pmt(TsProgram &program, const Bytes &section, View body)
    {
        constexpr size_t VERSION_AT = 5;
        const uint16_t pmt_pid = program.pmt_pid;
        if (section == program.section) return;
        if (!program.section.empty() && section[VERSION_AT] == program.section[VERSION_AT])
            complain(pmt_pid, "the PMT changes without a new version_number");
        program.section = section;
        program.streams.clear();
        program.pcr_pid = body.u16() & 0x1FFF;
        check_descriptors(pmt_pid, body.take(body.u16() & 0xFFF));
        while (body.left > 0) {
            TsStream stream;
            stream.type = body.u8();
            stream.pid = body.u16() & 0x1FFF;
            const View descriptors = body.take(body.u16() & 0xFFF);
            check_descriptors(pmt_pid, descriptors);
            stream.descriptors = descriptors.bytes();
            if (body.is_short) break;
            for (const TsStream &other : program.streams) {
                if (other.pid == stream.pid) complain(pmt_pid, "two streams on one PID");
            }
            m_pids[stream.pid].is_listed = true;
            program.streams.push_back(stream);
        }
        if (body.is_short) complain(pmt_pid, "lengths in the PMT don't add up");
    }

    void check_descriptors(uint16_t pid, View descriptors)
    {
        while (descriptors.left > 0) {
            descriptors.u8();
            descriptors.take(descriptors.u8());
        }
        if (descriptors.is_short) complain(pid, "a descriptor is cut short");
    }

    void add_to_pes(PidState &state, uint16_t pid, bool is_start, const View &payload,
                    const AdaptationField &field)
    {
        const bool is_pes = payload.left >= 3 && memcmp(payload.at, "\0\0\1", 3) == 0;
        // A PID that no PMT lists can carry anything, such as other tables.
        if (!state.is_listed && !state.pes && !(is_start && is_pes)) return;
        if (is_start) {
            if (!is_pes) complain(pid, "no packet_start_code_prefix where a PES packet starts");
            if (!state.is_listed) complain(pid, "a PES packet that no PMT has announced");
            finish_pes(state);
            state.pes = m_report.pes.size();
            m_report.pes.emplace_back();
            m_report.pes.back().packet = m_packet;
            m_report.pes.back().pid = pid;
            m_report.pes.back().pcr = field.pcr;
        }
        if (!state.pes) return complain(pid, "payload in front of the first PES packet");
        payload.append_to(m_report.pes[*state.pes].payload);
    }

    void finish_pes(const PidState &state)
    {
        if (!state.pes) return;
        TsPes &pes = m_report.pes[*state.pes];
        const size_t present = std::exchange(m_packet, pes.packet);
        View in{pes.payload.data(), pes.payload.size()};
        in.take(3);  // packet_start_code_prefix
        pes.stream_id = in.u8();
        const size_t length = in.u16();
        const size_t found = in.left;
        read_pes_header(pes, in);
        if (in.is_short) complain(pes.pid, "a PES packet is shorter than its header");
        // Only video may leave its length open, with 0.
        if (length != (found & 0xFFFF) && (length != 0 || (pes.stream_id & 0xF0) != 0xE0))
            complain(pes.pid, "PES_packet_length is " + std::to_string(length) + ", found " +
                                  std::to_string(found));
        pes.payload = in.bytes();
        m_packet = present;
    }

    void read_pes_header(TsPes &pes, View &in)
    {
        // program_stream_map, padding, private_stream_2, ECM, EMM, DSMCC, H.222.1 type E, directory
        static const uint8_t bare[] = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
        if (std::find(std::begin(bare), std::end(bare), pes.stream_id) != std::end(bare)) return;

        const uint8_t marker = in.u8();
        const uint8_t flags = in.u8();
        View header = in.take(in.u8());
        if (in.is_short) return;
        const unsigned times = flags >> 6;
        if ((marker & 0xC0) != 0x80) complain(pes.pid, "the PES header doesn't begin with '10'");
        if (times == 1) complain(pes.pid, "PTS_DTS_flags is '01'");
        if (times >= 2) pes.pts = read_time(pes, header, times);
        if (times == 3) pes.dts = read_time(pes, header, 1);
        // ESCR, ES_rate, trick mode, additional_copy_info, previous_PES_packet_CRC
        skip_optional(header, flags, {{0x20, 6}, {0x10, 3}, {0x08, 1}, {0x04, 1}, {0x02, 2}});
        if (header.is_short) complain(pes.pid, "PES_header_data_length is too small");
        const bool has_extension = (flags & 0x01) != 0;
        if (!has_extension && !header.is_stuffing())
            complain(pes.pid, "stuffing of the PES header isn't 0xFF");
    }

    /// A PTS or DTS: the prefix, then 3, 15 and 15 bits, each with a marker bit behind it.
    uint64_t read_time(const TsPes &pes, View &in, unsigned prefix)
    {
        const uint64_t field = in.get(5);
        if (in.is_short) return 0;
        if (field >> 36 != prefix || (field & 0x100010001) != 0x100010001)
            complain(pes.pid, "wrong prefix or marker bits of a PTS or DTS");
        return (field >> 33 & 7) << 30 | (field >> 17 & 0x7FFF) << 15 | (field >> 1 & 0x7FFF);
    }

    TsProgram *program_of(uint16_t pmt_pid, std::optional<uint16_t> number = {})
    {
        for (TsProgram &program : m_report.programs) {
            if (program.pmt_pid == pmt_pid && program.number == number.value_or(program.number))
                return &program;
        }
        return nullptr;
    }
};

}  // namespace

TsReport check_ts(const uint8_t *stream, size_t size)
{
    return Checker().run({stream, size});
}
