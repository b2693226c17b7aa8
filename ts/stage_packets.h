// Writes transport packets: PES packets of any size, packets with nothing but a clock, and sections. They are
// gathered in one buffer, in which a PES packet gets its length once it has ended.

#ifndef GOLT_STAGE_PACKETS_H
#define GOLT_STAGE_PACKETS_H

#include <algorithm>
#include <cstring>

#include "golt_stage.h"
#include "stage_bytes.h"

namespace golt {

constexpr size_t TS_SIZE = 188;
constexpr size_t TS_HEAD = 4;
constexpr size_t TS_ROOM = TS_SIZE - TS_HEAD;
constexpr int64_t NO_TIME = INT64_MIN;
constexpr uint64_t LONGEST_PES = 65535;  // by PES_packet_length

// Bits of a packet's header and of the flags of its adaptation field.
namespace bit {
constexpr uint8_t UNIT_START = 0x40;  // payload_unit_start_indicator, above the PID
constexpr uint8_t PAYLOAD = 0x10;     // adaptation_field_control
constexpr uint8_t ADAPTATION = 0x20;
constexpr uint8_t DISCONTINUITY = 0x80;
constexpr uint8_t RANDOM_ACCESS = 0x40;
constexpr uint8_t HAS_PCR = 0x10;
}  // namespace bit

// Of the four bytes with which a packet begins.
constexpr uint32_t SYNC_AND_PID = 0xFF1FFF00;
constexpr uint32_t SYNC_START_AND_PID = 0xFF5FFF00;
constexpr uint32_t UNIT_START = 0x00400000;
constexpr uint32_t NO_HEAD = 0xF;  // none begins so
constexpr uint32_t head_of_pid(uint32_t pid)
{
    return uint32_t{0x47} << 24 | pid << 8;
}

struct OutPid {
    uint16_t pid;
    uint8_t counter = 15;  // continuity_counter of the last packet with a payload
};

/// What is before the first byte of a PES packet's payload. Times: ticks of 90 kHz or NO_TIME.
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

    /// A packet that lacks nothing but its counter.
    void put_packet(OutPid &to, const uint8_t *packet);
    /// A packet that has a PCR and no payload. f_jumps: discontinuity_indicator.
    void put_clock(const OutPid &to, int64_t pcr, bool f_jumps);

    /// Between the begin of a PES packet and end_pes only append, align and copy may be called.
    void begin_pes(OutPid &to, const PesStart &start);
    /// Begins it with a packet of the library, in which a PES header with only a PTS is at pes_at, after an
    /// adaptation field with a PCR. Returns its payload as it is written.
    uint8_t *begin_copied_pes(OutPid &to, const uint8_t *packet, size_t pes_at,
                              const PesStart &start);
    void append(const uint8_t *bytes, size_t size);
    /// Fills the present packet up, so that the next byte is the first of a packet.
    void align();
    /// A packet of the library, with payload_size bytes of the PES packet. The present packet has to be full.
    void copy(const uint8_t *packet, size_t payload_size);

    /// Begins a run: packets that follow may go past append, most of them at most, if they have nothing but payload.
    /// head: the first four bytes of each, without the counter. f_looked_at: copy_in_run takes none of them.
    void begin_run(uint32_t head, uint64_t most, bool f_looked_at);
    /// Packets of it so far.
    uint64_t size_of_run() const { return static_cast<uint64_t>(m_run.to - m_run.begin) / TS_SIZE; }
    /// Has to be called before anything else is written. Returns its size.
    uint64_t end_run();
    /// Takes a packet if it belongs to the run, and only has to be copied.
    bool copy_in_run(const uint8_t *packet)
    {
        if ((be32(packet) & ~COUNTER) != m_run.copied_head || m_run.to == m_run.end) return false;
        copy_payload(next_of_run(), packet);
        return true;
    }
    /// head: its first four bytes.
    bool is_in_run(uint32_t head) const
    {
        return (head & ~COUNTER) == m_run.head && m_run.to != m_run.end;
    }
    /// Takes a packet that is.
    void append_in_run(const uint8_t *packet);

    void end_pes();
    /// Bytes of it after its length.
    uint64_t pes_size() const { return m_pes_size; }

    /// Bytes that pass outside of any packet that is written here.
    void pass(const uint8_t *bytes, size_t size);
    /// Gives the sink all packets before the PES packet that is open.
    void flush();

private:
    static constexpr size_t PES_UNCOUNTED = 6;  // bytes up to the end of PES_packet_length
    // What a write takes at once. A PES packet whose length can be stated fits after it: it begins where less
    // than that is held.
    static constexpr size_t BLOCK = 64 * 1024 / TS_SIZE * TS_SIZE;
    static constexpr size_t CAPACITY =
        BLOCK + ((LONGEST_PES + PES_UNCOUNTED) / TS_ROOM + 4) * TS_SIZE;

    static constexpr uint32_t COUNTER = 0xF;  // of the first four bytes of a packet

    struct Run {
        uint32_t copied_head = NO_HEAD;  // where packets only have to be copied
        uint32_t head = NO_HEAD;
        uint32_t counter = 0;
        uint8_t *to = nullptr;  // where the next packet goes
        uint8_t *end = nullptr;
        uint8_t *begin = nullptr;
    };

    // As the library has stored it: the processor hands on a store that is still on its way only to a load that lies
    // within it.
    static void copy_payload(uint8_t *to, const uint8_t *packet)
    {
        memcpy(to + TS_HEAD, packet + TS_HEAD, TS_ROOM);
    }
    uint8_t *next_of_run()
    {
        uint8_t *const to = m_run.to;
        m_run.to += TS_SIZE;
        m_run.counter = (m_run.counter + 1) & COUNTER;
        put_be32(to, m_run.head | m_run.counter);
        return to;
    }
    void begin_packet(OutPid &to, bool f_unit_start);
    void begin_pes_packet(const PesStart &start);
    void begin_adaptation(const PesStart &start);
    void begin_header(const PesStart &start);
    void next_pes_of_unit();
    [[gnu::noinline]] void stuff();
    void close_pes();
    // For one packet after those that are held. No packet is open then.
    void make_room()
    {
        if (CAPACITY - m_held < TS_SIZE) give(m_held);
    }
    [[gnu::noinline]] void give(size_t size);
    void write_out(size_t size);
    uint8_t *packet() { return m_buffer + m_held; }

    Run m_run;
    Stage::Write m_write;
    void *m_handle;
    bool m_f_failed = false;
    uint64_t m_bytes_out = 0;

    uint8_t *m_buffer = nullptr;
    size_t m_held = 0;        // bytes of finished packets before the one that is open
    size_t m_fill = 0;        // bytes of the open one; 0: none is
    size_t m_adaptation = 0;  // of them in its adaptation field

    OutPid *m_to = nullptr;     // of the PES packet that is open
    size_t m_pes_begin = 0;     // where its first packet is
    size_t m_pes_at = 0;        // where its length is
    bool m_f_pes_here = false;  // both are still in the buffer
    uint64_t m_pes_size = 0;    // bytes after its length
    uint8_t m_stream_id = 0;
    bool m_f_video = false;
};

/// CRC_32 of sections (ISO/IEC 13818-1, annex A).
uint32_t section_crc(const uint8_t *bytes, size_t size);

}  // namespace golt

#endif
