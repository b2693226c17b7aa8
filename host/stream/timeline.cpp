#include "timeline.h"

#include <algorithm>

void TimelineBin::merge(const TimelineBin &other)
{
    video_bytes += other.video_bytes;
    audio_bytes += other.audio_bytes;
    audio_late = std::max(audio_late, other.audio_late);
    video_late = std::max(video_late, other.video_late);
}

TimelineBin &Timeline::at(int64_t time)
{
    if (m_used == 0) m_start = time;
    const int64_t offset = std::max<int64_t>(time - m_start, 0);
    while (offset / m_width >= static_cast<int64_t>(BINS))
        double_width();
    const auto index = static_cast<size_t>(offset / m_width);
    m_used = std::max(m_used, index + 1);
    return m_bins[index];
}

void Timeline::double_width()
{
    for (size_t i = 0; i < BINS / 2; ++i) {
        TimelineBin both = m_bins[2 * i];
        both.merge(m_bins[2 * i + 1]);
        m_bins[i] = both;
    }
    std::fill(m_bins.begin() + BINS / 2, m_bins.end(), TimelineBin());
    m_used = (m_used + 1) / 2;
    m_width *= 2;
}
