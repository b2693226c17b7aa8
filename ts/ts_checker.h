// An independent judge of MPEG-2 transport streams (ISO/IEC 13818-1) of 188-byte packets. It shares
// nothing with the remuxer or the stage, and it takes any bytes. It keeps none of the stream: its memory
// is bounded, however long the stream is.
//
// It finds packets without a sync byte or cut short, continuity counters that jump, adaptation
// fields, sections and PES headers that contradict themselves, wrong CRCs, tables that change without
// a word or come after what they announce, and PES lengths that aren't kept. Where packets are lost, that
// is one problem: what follows from it isn't reported again. What it takes several frames or the clock to
// judge is up to TsJudge.
//
// What a remuxer has no use for counts as a problem too, valid or not, and is marked as that:
// scrambling, tables that change or take more than a packet, a NIT, any field of adaptation fields
// but the PCR and of PES headers but PTS, DTS and an extension, a repeated packet with another PCR,
// a clock that doesn't start with its PES packets, streams without PES header.
//
// Two things pass that the standard would not have. Times may run in any order: frames in decoding
// order without a DTS have no other. And a PES_packet_length may be the low 16 bits of one that
// doesn't fit.

#ifndef TS_TS_CHECKER_H
#define TS_TS_CHECKER_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "byte_view.h"
#include "ts_packet.h"
#include "ts_rule.h"

using Bytes = std::vector<uint8_t>;

struct TsPes {
    uint16_t pid = 0;
    uint8_t stream_id = 0;
    std::optional<uint64_t> pts;      ///< 90 kHz
    std::optional<uint64_t> dts;      ///< likewise; none where it is the PTS
    std::optional<uint64_t> pcr;      ///< of the packet in which it starts, 27 MHz
    std::optional<uint64_t> arrived;  ///< the program's last PCR before its end
    Bytes payload;                    ///< after the header; check_ts alone fills it in
    uint64_t payload_size = 0;
    uint64_t size = 0;             ///< bytes after PES_packet_length
    uint16_t length = 0;           ///< PES_packet_length
    uint64_t first_packet = 0;     ///< in which it starts
    uint64_t offset = 0;           ///< of that packet in the file
    bool f_random_access = false;  ///< random_access_indicator of that packet
    bool f_broken = false;         ///< packets of it are missing
};

struct TsProgram {
    uint64_t number;
    uint16_t pmt_pid;
    uint64_t others;  ///< programs in the PAT besides it
};

/// Takes what a TsChecker finds, in the stream's order. Each function may be left out.
class TsEvents {
public:
    virtual void on_problem(const TsProblem & /*problem*/) {}
    virtual void on_pat(uint64_t /*packet*/) {}
    virtual void on_pmt(uint64_t /*packet*/, uint16_t /*pid*/) {}
    /// The PAT names it first.
    virtual void on_program(const TsProgram & /*program*/) {}
    /// A PMT lists a stream, with another type than before. The type of AC-3 is ATSC's, also where a descriptor
    /// of DVB names it.
    virtual void on_stream(uint16_t /*pid*/, uint8_t /*stream_type*/) {}
    virtual void on_clock(uint16_t /*pcr_pid*/) {}
    /// A PCR on the PCR_PID of a PMT, in 27 MHz. f_jumps: the stream says that it may do so.
    virtual void on_pcr(uint64_t /*packet*/, uint64_t /*pcr*/, bool /*f_jumps*/) {}
    virtual void on_pes_start(uint16_t /*pid*/) {}
    /// A piece of the PES packet that is open on the PID, without its header.
    virtual void on_payload(uint16_t /*pid*/, const uint8_t * /*bytes*/, size_t /*size*/) {}
    virtual void on_pes_end(const TsPes & /*pes*/) {}
    virtual ~TsEvents() = default;
};

class TsChecker {
public:
    enum class Programs { ALL, FIRST };  ///< of which streams are looked into

    /// events: has to outlive the checker.
    explicit TsChecker(TsEvents &events, Programs programs = Programs::ALL);

    /// Takes the next bytes of a stream without gaps, in pieces of any size.
    void feed(const uint8_t *bytes, size_t size);
    /// Takes the next packet of a file. offset: of it there.
    void feed_packet(const uint8_t *packet, uint64_t offset);
    /// So many bytes of the file aren't in a packet.
    void lose(uint64_t size);
    /// Declares all PES packets begun whole; without it they end where others start.
    void end_pes();
    /// To be called when the stream ends.
    void finish();

    uint64_t packets() const { return m_packet; }

private:
    struct PidState {
        std::array<uint8_t, TS_PACKET_SIZE> last = {};  // the packet before
        bool f_last = false;
        uint64_t epoch = 0;               // in which it came
        bool f_copy = false;              // of the one before it
        std::optional<uint16_t> pmt;      // PID of the PMT that lists it as a stream
        uint8_t stream_type = 0;          // which that states
        bool f_clock = false;             // named PCR_PID by a PMT
        bool f_lacks_pcr = false;         // though it is named so
        std::optional<uint64_t> program;  // whose PMT this PID brings; 0: the PAT
        Bytes table;                      // the PAT or PMT, once it has come
        Bytes section;                    // of which more is to come
        bool f_open = false;              // a PES packet is
        TsPes pes;                        // the open one
        Bytes header;                     // of it, as far as it has come
        uint64_t total = 0;               // bytes of it that have come
    };

    void complain(const TsRule &rule, const char *detail = nullptr, int64_t amount = 0);
    void complain(const char *detail) { complain(rules::STRUCTURE, detail); }
    void note_unusual(const char *detail);
    void check_packet(const TsPacket &packet);
    void read_adaptation(ByteView &packet, bool f_payload);
    void read_sections(PidState &state, bool f_start, ByteView in);
    void add_to_section(PidState &state, ByteView &in);
    void read_section(PidState &state, const Bytes &section);
    void read_pat(ByteView &entries);
    void read_pmt(ByteView &entries);
    void add_to_pes(PidState &state, bool f_start, ByteView in);
    void finish_pes(PidState &state);
    uint64_t read_time(ByteView &in, uint64_t prefix);

    TsEvents &m_events;
    const Programs m_programs;
    std::map<uint16_t, PidState> m_pids;
    std::array<uint8_t, TS_PACKET_SIZE> m_piece = {};  // a packet of which more is to come
    size_t m_piece_size = 0;
    std::optional<uint64_t> m_clock;  // the last PCR
    uint64_t m_epoch = 0;             // counts the places where packets are lost

    // Of the present packet
    uint64_t m_packet = 0;
    uint64_t m_offset = 0;
    uint16_t m_pid = 0;
    bool m_f_discontinuous = false;
    bool m_f_random_access = false;
    std::optional<uint64_t> m_pcr;
};

#endif
