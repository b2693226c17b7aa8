#include "source_bytes.h"

#include <algorithm>

size_t SourceBytes::read_at(uint64_t offset, uint8_t *buffer, size_t size)
{
    // A read past the end would count as a fault of the file.
    if (offset >= m_source.size() || m_source.seek(static_cast<int64_t>(offset), SEEK_SET) != 0)
        return 0;
    const uint64_t there = std::min<uint64_t>(size, m_source.size() - offset);
    size_t got = 0;
    while (got < there) {
        const int count = m_source.read(buffer + got, static_cast<int>(there - got));
        if (count == 0) break;
        if (count > 0) got += static_cast<size_t>(count);  // below 0: nothing has come yet
    }
    return got;
}
