// An independent judge of MPEG-2 transport streams (ISO/IEC 13818-1) of 188-byte packets. It shares
// nothing with the remuxer, and it takes any bytes. It keeps none of the stream: its memory is
// bounded, however long the stream is.
//
// It finds packets without a sync byte or cut short, continuity counters that jump, adaptation
// fields, sections and PES headers that contradict themselves, wrong CRCs, tables and PES packets
// that come before what announces them, and PES lengths that aren't kept.
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

using Bytes = std::vector<uint8_t>;

struct TsPes {
    uint16_t pid = 0;
    uint8_t stream_id = 0;
    std::optional<uint64_t> pts;  ///< 90 kHz
    std::optional<uint64_t> pcr;  ///< of the packet in which it starts, 27 MHz
    Bytes payload;                ///< after the header; check_ts alone fills it in
    uint64_t payload_size = 0;
    uint64_t size = 0;          ///< bytes after PES_packet_length
    uint16_t length = 0;        ///< PES_packet_length
    uint64_t first_packet = 0;  ///< in which it starts
};

struct TsProblem {
    uint64_t packet;  ///< its number, from 0
    uint16_t pid;
    const char *what;  ///< a text that stays
    bool f_unusual;    ///< the standard allows it; a remuxer just has no use for it
};

/// Takes what a TsChecker finds, in the stream's order. Each function may be left out.
class TsEvents {
public:
    virtual void on_problem(const TsProblem & /*problem*/) {}
    virtual void on_pat(uint64_t /*packet*/) {}
    /// A PMT lists a stream.
    virtual void on_stream(uint16_t /*pid*/, uint8_t /*stream_type*/) {}
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
    /// events: has to outlive the checker.
    explicit TsChecker(TsEvents &events);

    /// Takes the next bytes of the stream, in pieces of any size.
    void feed(const uint8_t *bytes, size_t size);
    /// Declares all PES packets begun whole; without it they end where others start.
    void end_pes();
    /// To be called when the stream ends.
    void finish();

private:
    struct PidState {
        std::array<uint8_t, TS_PACKET_SIZE> last = {};  // the packet before
        bool f_last = false;
        bool f_copy = false;              // of the one before it
        bool f_listed = false;            // by a PMT, as a stream
        bool f_clock = false;             // named PCR_PID by a PMT
        bool f_lacks_pcr = false;         // though it is named so
        std::optional<uint64_t> program;  // whose PMT this PID brings; 0: the PAT
        Bytes section;                    // the PAT or PMT, once it has come
        bool f_open = false;              // a PES packet is
        TsPes pes;                        // the open one
        Bytes header;                     // of it, as far as it has come
        uint64_t total = 0;               // bytes of it that have come
    };

    void complain(const char *problem);
    void note_unusual(const char *problem);
    void check_packet(const TsPacket &packet);
    void read_adaptation(ByteView &packet, bool f_payload);
    void read_section(PidState &state, bool f_start, ByteView in);
    void read_pat(ByteView &entries);
    void read_pmt(ByteView &entries);
    void add_to_pes(PidState &state, bool f_start, ByteView in);
    void finish_pes(PidState &state);
    uint64_t read_time(ByteView &in, uint64_t prefix);

    TsEvents &m_events;
    std::map<uint16_t, PidState> m_pids;
    std::array<uint8_t, TS_PACKET_SIZE> m_piece = {};  // a packet of which more is to come
    size_t m_piece_size = 0;

    // Of the present packet
    uint64_t m_packet = 0;
    uint16_t m_pid = 0;
    bool m_f_discontinuous = false;
    std::optional<uint64_t> m_pcr;
};

#endif
