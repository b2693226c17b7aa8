// Byte order and unaligned access. The library runs on little-endian processors; the formats it
// reads and writes are big-endian: a field is an unaligned load followed by a bswap, or the other
// way round.

#ifndef GOLT_ENDIAN_H
#define GOLT_ENDIAN_H

#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the library is built for little-endian processors");

/// Reverses the bytes of a 16-bit value.
static inline uint16_t bswap_16(uint16_t ui2)
{
    return __builtin_bswap16(ui2);
}

/// Reverses the bytes of a 32-bit value.
static inline uint32_t bswap_32(uint32_t ui4)
{
    return __builtin_bswap32(ui4);
}

/// A 16-bit value at any address. may_alias: the bytes below it are a buffer of another type.
struct __attribute__((packed, may_alias)) unaligned_16 {
    uint16_t l;
};

/// A 32-bit value at any address.
struct __attribute__((packed, may_alias)) unaligned_32 {
    uint32_t l;
};

/// Big-endian 16 bits at pb.
static inline uint16_t get_be16(const uint8_t *pb)
{
    return bswap_16(reinterpret_cast<const unaligned_16 *>(pb)->l);
}

/// Big-endian 32 bits at pb.
static inline uint32_t get_be32(const uint8_t *pb)
{
    return bswap_32(reinterpret_cast<const unaligned_32 *>(pb)->l);
}

/// Stores ui2 big-endian at pb.
static inline void put_be16(uint8_t *pb, uint16_t ui2)
{
    reinterpret_cast<unaligned_16 *>(pb)->l = bswap_16(ui2);
}

/// Stores ui4 big-endian at pb.
static inline void put_be32(uint8_t *pb, uint32_t ui4)
{
    reinterpret_cast<unaligned_32 *>(pb)->l = bswap_32(ui4);
}

#endif
