#include "source_bytes.h"

#include <algorithm>

size_t SourceBytes::read_at(uint64_t offset, uint8_t *buffer, size_t least, size_t most)
{
    // What a server without ranges has sent can't be had again once much has followed.
    constexpr uint64_t NEAR = 256 * 1024;
    if (!m_source.is_seekable() && offset > NEAR - std::min<uint64_t>(most, NEAR)) return 0;
    // A read past the end would count as a fault of the file.
    if (m_source.size() != 0 && offset >= m_source.size()) return 0;
    if (offset > INT64_MAX || m_source.seek(static_cast<int64_t>(offset), SEEK_SET) != 0) return 0;
    // No more than has to come is waited for: a server may have less than it announced.
    const uint64_t there =
        m_source.size() == 0 ? most : std::min<uint64_t>(most, m_source.size() - offset);
    size_t got = 0;
    while (got < std::min<uint64_t>(least, there)) {
        const int count = m_source.read(buffer + got, static_cast<int>(there - got));
        if (count == 0) break;
        if (count > 0) got += static_cast<size_t>(count);  // below 0: nothing has come yet
    }
    return got;
}
