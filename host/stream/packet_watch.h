// Watches ready-made transport packets, as those of M2TS files: whether they end within a PES packet
// whose length is stated, as a file does that was cut between two packets.

#ifndef HOST_STREAM_PACKET_WATCH_H
#define HOST_STREAM_PACKET_WATCH_H

#include <cstddef>
#include <cstdint>
#include <vector>

class PacketWatch {
public:
    /// packet: TS_PACKET_SIZE bytes.
    void take(const uint8_t *packet);
    /// Bytes that the unfinished PES packets lack; 0 where all are whole.
    uint64_t missing() const;

private:
    struct Stream {
        uint16_t pid;
        size_t left;  // of the PES packet; 0 where it is whole, or states no length
    };
    Stream *stream_of(uint16_t pid);

    std::vector<Stream> m_streams;
    size_t m_last = 0;  // the stream of the packet before
};

#endif
