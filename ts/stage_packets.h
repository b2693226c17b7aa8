// Writes transport packets: PES packets of any size, packets with nothing but a clock, and sections. They are
// gathered in one buffer, in which a PES packet gets its length once it has ended.

#ifndef GOLT_STAGE_PACKETS_H
#define GOLT_STAGE_PACKETS_H

#include "golt_stage.h"

namespace golt {

constexpr size_t TS_SIZE = 188;
constexpr size_t TS_HEAD = 4;
constexpr size_t TS_ROOM = TS_SIZE - TS_HEAD;
constexpr int64_t NO_TIME = INT64_MIN;

struct OutPid {
    uint16_t pid;
    uint8_t counter = 15;  // continuity_counter of the last packet with a payload
};

/// What stands before the first byte of a PES packet's payload. Times: ticks of 90 kHz or NO_TIME.
struct PesStart {
    uint8_t stream_id = 0;
    int64_t pts = NO_TIME;
    int64_t dts = NO_TIME;  ///< left out where it is the PTS
    int64_t pcr = NO_TIME;
    bool f_random_access = false;
    bool f_video = false;  ///< its length may be left open
};

class PacketWriter {
public:
    PacketWriter(Stage::Write write, void *handle)
        : m_write(write)
        , m_handle(handle)
    {
    }
    ~PacketWriter();
    PacketWriter(const PacketWriter &) = delete;
    PacketWriter &operator=(const PacketWriter &) = delete;

    /// Takes the buffer. False: no memory.
    bool open();
    bool has_failed() const { return m_f_failed; }
    uint64_t bytes_out() const { return m_bytes_out; }

    /// A section with its CRC, of 183 bytes at most, in a packet of its own.
    void put_section(OutPid &to, const uint8_t *section, size_t size);
    /// A packet that has a PCR and no payload. f_jumps: discontinuity_indicator.
    void put_clock(const OutPid &to, int64_t pcr, bool f_jumps);

    /// Between begin_pes and end_pes only append and align may be called.
    void begin_pes(OutPid &to, const PesStart &start);
    void append(const uint8_t *bytes, size_t size);
    /// Fills the present packet up, so that the next byte is the first of a packet.
    void align();
    void end_pes();
    bool in_pes() const { return m_to != nullptr; }

    /// Bytes that pass outside of any packet that is written here.
    void pass(const uint8_t *bytes, size_t size);
    /// Gives the sink all packets before the PES packet that is open.
    void flush();

private:
    void begin_packet(OutPid &to, bool f_unit_start);
    void begin_pes_packet(const PesStart &start);
    void begin_adaptation(const PesStart &start);
    void begin_header(const PesStart &start);
    void next_pes_of_unit();
    void stuff();
    void close_pes();
    void make_room();
    void give(size_t size);
    uint8_t *packet() { return m_buffer + m_held; }

    Stage::Write m_write;
    void *m_handle;
    bool m_f_failed = false;
    uint64_t m_bytes_out = 0;

    uint8_t *m_buffer = nullptr;
    size_t m_held = 0;        // bytes of finished packets in front of the one that is open
    size_t m_fill = 0;        // bytes of the open one; 0: none is
    size_t m_adaptation = 0;  // of them in its adaptation field

    OutPid *m_to = nullptr;     // of the PES packet that is open
    size_t m_pes_at = 0;        // where its length stands
    bool m_f_pes_here = false;  // m_pes_at is still in the buffer
    uint64_t m_pes_size = 0;    // bytes behind its length
    PesStart m_start;
};

/// CRC_32 of sections (ISO/IEC 13818-1, annex A).
uint32_t section_crc(const uint8_t *bytes, size_t size);

}  // namespace golt

#endif
