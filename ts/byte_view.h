// Bounded reading of bytes in memory.

#ifndef TS_BYTE_VIEW_H
#define TS_BYTE_VIEW_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

/// Bytes still to be read. Once they didn't suffice, f_short stays set, and what was read is void:
/// a parser reads straight on and looks once.
struct ByteView {
    const uint8_t *at;
    size_t left;
    bool f_short = false;

    ByteView take(uint64_t size)
    {
        f_short = f_short || size > left;
        const ByteView taken{at, f_short ? left : static_cast<size_t>(size)};
        at += taken.left;
        left -= taken.left;
        return taken;
    }
    /// A big-endian number of size bytes, 8 at most.
    uint64_t get(size_t size)
    {
        const ByteView field = take(size);
        uint64_t value = 0;
        for (size_t i = 0; i < field.left; ++i)
            value = value << 8 | field.at[i];
        return value;
    }
    bool is_stuffing() const
    {
        return std::all_of(at, at + left, [](uint8_t byte) { return byte == 0xFF; });
    }
};

#endif
