// A source that consists of two stretches of another one: its head, and what follows from another
// place on. So the library, which reads a file from its begin, begins at any place of it.

#ifndef HOST_HLS_SPLICED_SOURCE_H
#define HOST_HLS_SPLICED_SOURCE_H

#include <array>
#include <vector>

#include "io/source.h"

/// Bytes that stand in for those of the file.
struct Patch {
    uint64_t offset;
    std::array<uint8_t, 9> bytes;
};

class SplicedSource final : public Source {
public:
    struct Stretches {
        uint64_t head_end = 0;
        uint64_t from = 0;  ///< what follows the head
        uint64_t to = 0;
    };

    /// source, patches: have to outlive the object. patches: to the head. budget: bytes that may be read
    /// in all; after them the source ends, with a fault.
    SplicedSource(Source &source, const Stretches &stretches, const std::vector<Patch> &patches,
                  uint64_t budget);

    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;
    uint64_t size() const override;
    bool is_seekable() const override { return m_source.is_seekable(); }

private:
    bool move_source();
    void patch(uint64_t offset, uint8_t *buffer, size_t size) const;

    Source &m_source;
    const Stretches m_stretches;
    const std::vector<Patch> &m_patches;
    uint64_t m_budget;
};

#endif
