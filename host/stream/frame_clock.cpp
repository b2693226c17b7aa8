#include "frame_clock.h"

#include <algorithm>

void FrameClock::begin_around(int64_t time)
{
    m_clock = CutClock(HOST_PTS_BITS, time);
    m_clock.settle();
}

void FrameClock::count()
{
    const int64_t now = m_clock.now();
    if (!m_f_counting) m_reached = now;
    m_f_counting = true;
    m_clock.settle();
    m_reached = std::max(m_reached, now);
}
