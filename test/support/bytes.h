// Byte strings of the tests.

#ifndef GOLT_TEST_BYTES_H
#define GOLT_TEST_BYTES_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

typedef std::vector<uint8_t> Bytes;

inline Bytes &operator+=(Bytes &to, const Bytes &more)
{
    to.insert(to.end(), more.begin(), more.end());
    return to;
}

inline Bytes operator+(Bytes first, const Bytes &second)
{
    return first += second;
}

/// value as big-endian bytes, the low size ones.
inline Bytes be(uint64_t value, int size)
{
    Bytes out;
    for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
    return out;
}

inline Bytes be16(uint32_t value)
{
    return be(value, 2);
}

inline Bytes be32(uint32_t value)
{
    return be(value, 4);
}

/// The bytes of a text, without its NUL.
inline Bytes text(const std::string &chars)
{
    return Bytes(chars.begin(), chars.end());
}

/// size bytes that differ from place to place and from seed to seed.
inline Bytes pattern(size_t size, uint32_t seed)
{
    Bytes out(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t &byte : out) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return out;
}

/// Bytes from hexadecimal digits; blanks are passed over.
inline Bytes hex(const std::string &digits)
{
    Bytes out;
    std::string pair;
    for (char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        out.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
        pair.clear();
    }
    return out;
}

#endif
