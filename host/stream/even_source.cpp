#include "even_source.h"

#include <algorithm>
#include <cstring>

int EvenSource::read(uint8_t *buffer, int size)
{
    if (size <= 0) return 0;
    int count = 0;
    if (position() < m_head.size()) {
        const auto at = static_cast<size_t>(position());
        count = static_cast<int>(std::min(m_head.size() - at, static_cast<size_t>(size)));
        memcpy(buffer, m_head.data() + at, static_cast<size_t>(count));
    } else {
        const uint64_t at = position() - m_head.size();
        if (at != m_source.position() && m_source.seek(static_cast<int64_t>(at), SEEK_SET) != 0)
            return 0;
        count = m_source.read(buffer, size);
        if (count <= 0) m_fault = m_source.fault();
    }
    if (count > 0) m_position += count;
    return count;
}

int64_t EvenSource::seek(int64_t offset, int whence)
{
    if (whence != SEEK_SET || offset < 0) return -1;
    m_position = offset;
    return 0;
}
