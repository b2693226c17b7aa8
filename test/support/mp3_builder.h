// MPEG audio files (ISO/IEC 11172-3) that know where each of their frames starts.

#ifndef GOLT_TEST_MP3_BUILDER_H
#define GOLT_TEST_MP3_BUILDER_H

#include <utility>

#include "bytes.h"

struct Mp3 {
    Bytes file;
    std::vector<size_t> starts;  ///< offset of each frame

    /// Frames with a header, as a word, and of the size that it gives: Layer III of 128 kbit/s at
    /// 44100 Hz, unless another is given. The payload has no 0xFF: nothing in it looks like a
    /// header.
    Mp3 &frames(int count, uint32_t header = 0xFFFB9000, size_t size = 417)
    {
        for (; count > 0; --count) {
            starts.push_back(file.size());
            file += be32(header) + Bytes(size - 4, static_cast<uint8_t>(starts.size() & 0x7F));
        }
        return *this;
    }

    /// Layer III at 44100 Hz, each frame at a rate of its own between 32 and 320 kbit/s.
    Mp3 &variable_rate(size_t count, uint32_t seed)
    {
        const std::pair<uint32_t, size_t> rates[] = {{0xFFFB1000, 104}, {0xFFFB5000, 208},
                                                     {0xFFFB9000, 417}, {0xFFFB9200, 418},
                                                     {0xFFFBD000, 835}, {0xFFFBE000, 1044}};
        for (uint8_t byte : pattern(count, seed))
            frames(1, rates[byte % 6].first, rates[byte % 6].second);
        return *this;
    }

    Mp3 &raw(const Bytes &bytes)
    {
        file += bytes;
        return *this;
    }
};

#endif
