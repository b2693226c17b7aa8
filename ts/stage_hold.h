// Packets that wait until the first times of a stream are known.

#ifndef GOLT_STAGE_HOLD_H
#define GOLT_STAGE_HOLD_H

#include "stage_packets.h"

namespace golt {

class PacketHold {
public:
    static constexpr size_t MOST_BYTES = 2 * 1024 * 1024;

    PacketHold() = default;
    ~PacketHold() { clear(); }
    PacketHold(const PacketHold &) = delete;
    PacketHold &operator=(const PacketHold &) = delete;

    /// False: there is no memory, or too much is held already.
    bool add(const uint8_t *packet);
    bool is_empty() const { return m_first == nullptr; }
    /// Shows the packets in their order and gives each block back after its last one.
    template <typename Take> void release(Take take)
    {
        while (m_first != nullptr) {
            for (size_t at = 0; at < m_first->size; at += TS_SIZE)
                take(m_first->packets + at);
            drop_first();
        }
    }
    void clear();

private:
    struct Block {
        Block *next;
        size_t size;
        uint8_t packets[170 * TS_SIZE];
    };

    void drop_first();

    Block *m_first = nullptr;
    Block *m_last = nullptr;
    size_t m_bytes = 0;
};

}  // namespace golt

#endif
