#include "frame_clock.h"

#include <algorithm>

FrameClock::FrameClock(uint32_t start_ms)
    : m_now(int64_t{start_ms} * TICKS_PER_MS)
{
}

int64_t FrameClock::follow(uint32_t pts)
{
    // Of the times that end in these 32 bits the one nearest to the last is meant, give or take:
    // frames step back by little, but a file may begin hours after 0.
    constexpr int64_t FARTHEST_BACK = 3600 * 1000 * TICKS_PER_MS;
    const int64_t earliest = m_now - FARTHEST_BACK;
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
