// The bounded reader: a parser reads straight on and asks once, after its last field, whether the
// bytes sufficed.

#ifndef GOLT_READER_H
#define GOLT_READER_H

#include <cstdint>

#include "golt_endian.h"

/// Bytes in memory, read from the front. The memory is the caller's and has to outlive the reader.
/// The first read past the end makes the reader short for good: that read and all later ones yield
/// 0, or no bytes, and nothing is left.
class golt_reader_t {
public:
    golt_reader_t(const uint8_t *pb, uint32_t ui4_size)
        : m_at(pb)
        , m_left(ui4_size)
    {
    }

    /// Bytes not read yet.
    uint32_t left() const { return m_left; }

    /// True once a read has run past the end.
    bool f_short() const { return m_fShort; }

    /// Unsigned big-endian fields.
    uint8_t get_u8()
    {
        const uint8_t *pb = take(1);
        return pb != nullptr ? *pb : uint8_t{0};
    }
    uint16_t get_u16()
    {
        const uint8_t *pb = take(2);
        return pb != nullptr ? get_be16(pb) : uint16_t{0};
    }
    uint32_t get_u32()
    {
        const uint8_t *pb = take(4);
        return pb != nullptr ? get_be32(pb) : 0;
    }

    /// The next ui4_size bytes, or null where fewer are left.
    const uint8_t *take(uint32_t ui4_size)
    {
        if (ui4_size > m_left) {
            m_left = 0;
            m_fShort = true;
            return nullptr;
        }
        const uint8_t *pb = m_at;
        m_at += ui4_size;
        m_left -= ui4_size;
        return pb;
    }

    void skip(uint32_t ui4_size) { take(ui4_size); }

private:
    const uint8_t *m_at;
    uint32_t m_left;
    bool m_fShort = false;
};

#endif
