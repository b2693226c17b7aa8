// The first packets of a stream, which are held back until its times are known.

#ifndef GOLT_STAGE_HOLD_H
#define GOLT_STAGE_HOLD_H

#include "stage_packets.h"

namespace golt {

/// They lie in one block, which the C library usually takes from the system and gives back as a whole; its pages count as
/// they are filled. Smaller ones would leave holes among the frames on a host's heap, which then stays larger by half a MB.
class PacketHold {
public:
    static constexpr size_t MOST_BYTES = 2 * 1024 * 1024 / TS_SIZE * TS_SIZE;

    PacketHold() = default;
    ~PacketHold() { clear(); }
    PacketHold(const PacketHold &) = delete;
    PacketHold &operator=(const PacketHold &) = delete;

    /// False: there is no memory, or too much is held already.
    bool add(const uint8_t *packet);
    bool is_empty() const { return m_size == 0; }
    /// There was no memory for as much as may be held.
    bool is_short() const { return m_room < MOST_BYTES; }
    /// Shows the packets in their order, and then gives the memory back.
    template <typename Take> void release(Take take)
    {
        for (size_t at = 0; at < m_size; at += TS_SIZE)
            take(m_packets + at);
        clear();
    }
    void clear();

private:
    uint8_t *m_packets = nullptr;
    size_t m_size = 0;
    size_t m_room = 0;
};

}  // namespace golt

#endif
