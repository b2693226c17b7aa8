#include "spliced_source.h"

#include <algorithm>

SplicedSource::SplicedSource(Source &source, const Stretches &stretches,
                             const std::vector<Patch> &patches, uint64_t budget)
    : Source(source.path())
    , m_source(source)
    , m_stretches(stretches)
    , m_patches(patches)
    , m_budget(budget)
{
}

uint64_t SplicedSource::size() const
{
    return m_stretches.head_end + (m_stretches.to - m_stretches.from);
}

int SplicedSource::read(uint8_t *buffer, int size)
{
    if (size <= 0 || position() >= this->size()) return 0;
    const bool f_head = position() < m_stretches.head_end;
    const uint64_t left = (f_head ? m_stretches.head_end : this->size()) - position();
    const auto wanted = static_cast<int>(std::min({left, m_budget, static_cast<uint64_t>(size)}));
    if (wanted == 0) {
        m_fault = "too much would have to be read";
        return 0;
    }
    if (!move_source()) return 0;
    const int count = m_source.read(buffer, wanted);
    if (count <= 0) return count;
    if (f_head) patch(position(), buffer, static_cast<size_t>(count));
    m_position += count;
    m_budget -= static_cast<uint64_t>(count);
    return count;
}

int64_t SplicedSource::seek(int64_t offset, int whence)
{
    if (whence != SEEK_SET || offset < 0) return -1;
    m_position = offset;
    return 0;
}

bool SplicedSource::move_source()
{
    const uint64_t at = position() < m_stretches.head_end
                            ? position()
                            : position() - m_stretches.head_end + m_stretches.from;
    return at == m_source.position() || m_source.seek(static_cast<int64_t>(at), SEEK_SET) == 0;
}

void SplicedSource::patch(uint64_t offset, uint8_t *buffer, size_t size) const
{
    for (const Patch &patch : m_patches) {
        for (size_t i = 0; i < patch.bytes.size(); ++i) {
            const uint64_t at = patch.offset + i;
            if (at >= offset && at - offset < size) buffer[at - offset] = patch.bytes[i];
        }
    }
}
