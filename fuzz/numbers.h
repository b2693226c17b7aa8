// An input as a row of numbers, for the targets whose inputs aren't files.

#ifndef GOLT_FUZZ_NUMBERS_H
#define GOLT_FUZZ_NUMBERS_H

#include <algorithm>

#include "bytes.h"

/// Takes numbers from the input's front; 0 where there are none left.
struct Numbers {
    const uint8_t *pb_at;
    size_t left;

    /// size: bytes; of more than eight, the last eight count.
    uint64_t take(size_t size)
    {
        uint64_t ui8_value = 0;
        for (; size > 0; --size) {
            ui8_value = ui8_value << 8 | (left > 0 ? *pb_at : 0u);
            if (left == 0) continue;
            ++pb_at;
            --left;
        }
        return ui8_value;
    }
    uint32_t take32() { return static_cast<uint32_t>(take(4)); }
    Bytes take_bytes(uint64_t count)
    {
        const size_t there = static_cast<size_t>(std::min<uint64_t>(count, left));
        // At once of its size: sanitizers see who reads past it.
        Bytes out(static_cast<size_t>(count));
        std::copy_n(pb_at, there, out.begin());
        pb_at += there;
        left -= there;
        return out;
    }
};

#endif
