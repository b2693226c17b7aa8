// An MP4 file behind another index, as the library reads it.

#ifndef HOST_STREAM_EVEN_SOURCE_H
#define HOST_STREAM_EVEN_SOURCE_H

#include "even_index.h"
#include "io/source.h"

class EvenSource final : public Source {
public:
    /// source, index: have to outlive the object.
    EvenSource(Source &source, const EvenIndex &index)
        : Source(source.path())
        , m_source(source)
        , m_head(index.head)
    {
    }

    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;
    uint64_t size() const override { return m_head.size() + m_source.size(); }
    bool is_seekable() const override { return m_source.is_seekable(); }

private:
    Source &m_source;
    const std::vector<uint8_t> &m_head;
};

#endif
