#include "stage_hold.h"

#include <cstring>
#include <new>

namespace golt {

bool PacketHold::add(const uint8_t *packet)
{
    if (m_bytes >= MOST_BYTES) return false;
    if (m_last == nullptr || m_last->size == sizeof m_last->packets) {
        auto *const block = new (std::nothrow) Block;
        if (block == nullptr) return false;
        block->next = nullptr;
        block->size = 0;
        (m_last != nullptr ? m_last->next : m_first) = block;
        m_last = block;
    }
    memcpy(m_last->packets + m_last->size, packet, TS_SIZE);
    m_last->size += TS_SIZE;
    m_bytes += TS_SIZE;
    return true;
}

void PacketHold::clear()
{
    while (m_first != nullptr)
        drop_first();
}

void PacketHold::drop_first()
{
    Block *const first = m_first;
    m_first = first->next;
    if (m_first == nullptr) m_last = nullptr;
    m_bytes -= first->size;
    delete first;
}

}  // namespace golt
