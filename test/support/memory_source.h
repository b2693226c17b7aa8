// A file in memory, as the outline reads it.

#ifndef GOLT_TEST_MEMORY_SOURCE_H
#define GOLT_TEST_MEMORY_SOURCE_H

#include <algorithm>
#include <cstring>

#include "bytes.h"
#include "outline.h"

/// Bytes in memory; counts the reads.
class Memory final : public ByteSource {
public:
    explicit Memory(Bytes file, bool f_knows_size = true)
        : m_file(std::move(file))
        , m_f_knows_size(f_knows_size)
    {
    }
    size_t read_at(uint64_t offset, uint8_t *buffer, size_t /*least*/, size_t size) override
    {
        ++reads;
        const size_t at = static_cast<size_t>(std::min<uint64_t>(offset, m_file.size()));
        const size_t count = std::min(size, m_file.size() - at);
        if (count > 0) memcpy(buffer, m_file.data() + at, count);
        return count;
    }
    uint64_t size() const override { return m_f_knows_size ? m_file.size() : 0; }

    int reads = 0;

private:
    Bytes m_file;
    bool m_f_knows_size;
};

inline Outline outline_of(const Bytes &file)
{
    Memory memory(file);
    return read_outline(memory);
}

#endif
