#include "frame_clock.h"

#include <algorithm>

FrameClock::FrameClock(uint32_t start_ms)
    : m_now(int64_t{start_ms} * TICKS_PER_MS)
{
}

int64_t FrameClock::follow(uint32_t pts)
{
    // Of the times that end in these 32 bits the one nearest to the last is meant: a stream may
    // stand hours behind the other. Only the first frame lies ahead, as a file may begin hours
    // after 0.
    constexpr int64_t HALF_RANGE = int64_t{1} << 31;
    constexpr int64_t A_LITTLE = 3600 * 1000 * TICKS_PER_MS;
    const int64_t earliest = m_now - (m_is_counting ? HALF_RANGE : A_LITTLE);
    m_now = earliest + static_cast<uint32_t>(pts - static_cast<uint32_t>(earliest));
    return m_now / TICKS_PER_MS;
}

void FrameClock::count()
{
    if (!m_is_counting) {
        m_is_counting = true;
        m_first = m_reached = m_now;
    }
    m_longest_step = std::max(m_longest_step, m_now - m_reached);
    m_reached = std::max(m_reached, m_now);
    m_first = std::min(m_first, m_now);
}
