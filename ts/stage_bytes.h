// Numbers as transport streams have them, the first byte first.

#ifndef GOLT_STAGE_BYTES_H
#define GOLT_STAGE_BYTES_H

#include <cstdint>

namespace golt {

inline uint32_t be32(const uint8_t *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

inline void put_be16(uint8_t *to, uint32_t value)
{
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

inline void put_be32(uint8_t *to, uint32_t value)
{
    put_be16(to, value >> 16);
    put_be16(to + 2, value);
}

}  // namespace golt

#endif
