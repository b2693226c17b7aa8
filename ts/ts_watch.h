// Watches whether the times of one elementary stream in transport packets move.

#ifndef TS_TS_WATCH_H
#define TS_TS_WATCH_H

#include <cstdint>

#include "ts_time.h"

class TsWatch {
public:
    /// pid: of the stream's packets.
    explicit TsWatch(uint32_t pid)
        : m_wanted(UNIT_START | pid)
    {
    }

    /// Whether the packet of 188 bytes has to be shown to look: it begins a PES packet of the
    /// stream, and all times so far are the same.
    bool wants(const uint8_t *packet) const
    {
        // All four bytes, as the library has stored them.
        const uint32_t header = uint32_t{packet[0]} << 24 | uint32_t{packet[1]} << 16 |
                                uint32_t{packet[2]} << 8 | packet[3];
        return (header >> 8 & (UNIT_START | PID)) == m_wanted;
    }
    /// Takes a packet that it wants.
    void look(const uint8_t *packet);

    /// PES packets with a time that were looked at.
    uint64_t frames() const { return m_frames; }
    int64_t first_ms() const { return static_cast<int64_t>(m_first / TICKS_PER_MS); }
    /// Whether there are several, all with one time.
    bool stands_still() const { return m_frames > 1 && m_wanted != NOTHING; }

private:
    static constexpr uint32_t UNIT_START = 0x4000;  // payload_unit_start_indicator
    static constexpr uint32_t PID = 0x1FFF;
    static constexpr uint32_t NOTHING = 0x8000;  // lies outside of both

    uint32_t m_wanted;  // payload_unit_start_indicator and PID
    uint64_t m_frames = 0;
    uint64_t m_first = 0;  // 90 kHz
};

#endif
