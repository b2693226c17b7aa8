// Watches the times of one elementary stream in the transport packets that the library writes.

#ifndef HOST_STREAM_WATCH_H
#define HOST_STREAM_WATCH_H

#include <cstdint>

class StreamWatch {
public:
    /// pid: of the stream's packets.
    explicit StreamWatch(uint32_t pid)
        : m_pid(pid)
    {
    }

    /// Takes what the library writes at once; anything but a packet of the stream is passed over.
    void look(const uint8_t *packet, int size)
    {
        constexpr int PACKET_SIZE = 188;
        constexpr uint32_t UNIT_START = 0x4000;  // payload_unit_start_indicator
        constexpr uint32_t START_OF_STREAM_MASK = 0x5FFF;
        if (size != PACKET_SIZE) return;
        const uint32_t field = uint32_t{packet[1]} << 8 | packet[2];
        if ((field & START_OF_STREAM_MASK) == (UNIT_START | m_pid)) look_at_start(packet);
    }

    /// PES packets with a time.
    uint64_t frames() const { return m_frames; }
    int64_t first_ms() const { return static_cast<int64_t>(m_first / 90); }
    /// Whether there are several, all with one time.
    bool stands_still() const { return m_frames > 1 && !m_has_moved; }

private:
    void look_at_start(const uint8_t *packet);

    uint32_t m_pid;
    uint64_t m_frames = 0;
    uint64_t m_first = 0;  // 90 kHz
    bool m_has_moved = false;
};

#endif
