// A source as the outline reads it: at any place, without the library.

#ifndef HOST_STREAM_SOURCE_BYTES_H
#define HOST_STREAM_SOURCE_BYTES_H

#include "io/source.h"
#include "outline.h"

class SourceBytes final : public ByteSource {
public:
    /// source: has to outlive the object; afterwards its position is as it was. The library relies on it.
    explicit SourceBytes(Source &source)
        : m_source(source)
        , m_position(source.position())
    {
    }
    ~SourceBytes() { m_source.seek(static_cast<int64_t>(m_position), SEEK_SET); }
    SourceBytes(const SourceBytes &) = delete;
    SourceBytes &operator=(const SourceBytes &) = delete;

    size_t read_at(uint64_t offset, uint8_t *buffer, size_t least, size_t most) override;
    uint64_t size() const override { return m_source.size(); }

private:
    Source &m_source;
    const uint64_t m_position;
};

#endif
