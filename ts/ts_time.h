// Times of transport streams: units, fields, and clocks that start again.

#ifndef TS_TS_TIME_H
#define TS_TS_TIME_H

#include <cstddef>
#include <cstdint>

constexpr int64_t TICKS_PER_MS = 90;  // of PTS and DTS
constexpr int64_t TICKS_PER_SECOND = 1000 * TICKS_PER_MS;
constexpr int64_t PCR_PER_TICK = 300;  // of the PCR's 27 MHz
constexpr unsigned PTS_BITS = 33;

constexpr size_t PTS_FIELD_SIZE = 5;
constexpr uint64_t PTS_MARKERS = 0x100010001;  // marker bits of a PTS or DTS

/// The 33 bits of a PTS or DTS. field: its five bytes, that is a prefix and 3, 15 and 15 bits, each
/// with a marker bit after it.
constexpr uint64_t time_of_field(uint64_t field)
{
    return (field >> 33 & 7) << 30 | (field >> 17 & 0x7FFF) << 15 | (field >> 1 & 0x7FFF);
}

/// How much later the first of two times of 33 bits is, the nearer way round.
constexpr int64_t difference_of_times(uint64_t first, uint64_t second)
{
    constexpr uint64_t RANGE = uint64_t{1} << PTS_BITS;
    const uint64_t ahead = (first - second) & (RANGE - 1);
    return ahead < RANGE / 2 ? static_cast<int64_t>(ahead)
                             : static_cast<int64_t>(ahead) - static_cast<int64_t>(RANGE);
}

/// Follows times of 90 kHz that come cut to their low bits and so start again every few hours.
class CutClock {
public:
    /// bits: of a time that are left. expected: about where the first one is.
    CutClock(unsigned bits, int64_t expected)
        : m_range(int64_t{1} << bits)
        , m_now(expected)
    {
    }

    /// The time that is meant by its low bits: the one nearest to the last. Before the clock has
    /// settled it is ahead of that, as a file may begin hours after 0.
    int64_t follow(uint64_t cut)
    {
        constexpr int64_t A_LITTLE = 3600 * TICKS_PER_SECOND;
        const int64_t earliest = m_now - (m_f_settled ? m_range / 2 : A_LITTLE);
        const auto mask = static_cast<uint64_t>(m_range - 1);
        m_now = earliest + static_cast<int64_t>((cut - static_cast<uint64_t>(earliest)) & mask);
        return m_now;
    }
    /// From now on times run back as well as forth.
    void settle() { m_f_settled = true; }
    int64_t now() const { return m_now; }

private:
    int64_t m_range;
    int64_t m_now;
    bool m_f_settled = false;
};

#endif
