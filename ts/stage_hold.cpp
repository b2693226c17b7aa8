#include "stage_hold.h"

#include <cstdlib>
#include <cstring>

namespace golt {

// Where there is less memory, a smaller block holds at least a small picture.
bool PacketHold::add(const uint8_t *packet)
{
    constexpr size_t LEAST_BYTES = MOST_BYTES / 32;
    for (size_t room = MOST_BYTES; m_packets == nullptr && room >= LEAST_BYTES; room /= 2) {
        m_packets = static_cast<uint8_t *>(std::malloc(room));
        m_room = room;
    }
    if (m_packets == nullptr || m_room - m_size < TS_SIZE) return false;
    memcpy(m_packets + m_size, packet, TS_SIZE);
    m_size += TS_SIZE;
    return true;
}

void PacketHold::clear()
{
    std::free(m_packets);
    m_packets = nullptr;
    m_size = m_room = 0;
}

}  // namespace golt
