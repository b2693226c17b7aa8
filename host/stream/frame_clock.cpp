#include "frame_clock.h"

#include <algorithm>

namespace {

constexpr unsigned HOST_PTS_BITS = 32;  // of the times that a host gets

}  // namespace

FrameClock::FrameClock(uint32_t start_ms)
    : m_clock(HOST_PTS_BITS, int64_t{start_ms} * TICKS_PER_MS)
{
}

void FrameClock::count()
{
    const int64_t now = m_clock.now();
    if (!m_f_counting) m_reached = now;
    m_f_counting = true;
    m_clock.settle();
    m_reached = std::max(m_reached, now);
}
