// Private to the read cache: what its buffers and those who use them share.

#ifndef GOLT_TCACHE_I_H
#define GOLT_TCACHE_I_H

#include <cstdint>
#include <cstring>

// Keep what is rarely called, or not each time, out of the code of its callers.
#define GOLT_RARE __attribute__((noinline, cold))
#define GOLT_APART __attribute__((noinline))

/// A copy of size bytes as two of width bytes that overlap, or touch.
template <size_t width> inline void copyEnds(uint8_t *to, const uint8_t *from, uint32_t size)
{
    uint8_t head[width];
    uint8_t tail[width];
    memcpy(head, from, width);
    memcpy(tail, from + size - width, width);
    memcpy(to, head, width);
    memcpy(to + size - width, tail, width);
}

/// Copies size bytes, at least one. Most reads are of a field or a header, for which a call takes
/// longer than the copy.
inline void copyBytes(uint8_t *to, const uint8_t *from, uint32_t size)
{
    if (size > 16)
        memcpy(to, from, size);
    else if (size >= 8)
        copyEnds<8>(to, from, size);
    else if (size >= 4)
        copyEnds<4>(to, from, size);
    else if (size >= 2)
        copyEnds<2>(to, from, size);
    else
        *to = *from;
}

/// Of an offset what the messages show.
inline unsigned low32(uint64_t offset)
{
    return static_cast<uint32_t>(offset);
}

#endif
