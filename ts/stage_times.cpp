#include "stage_times.h"

#include <algorithm>

namespace golt {

namespace {

// By how much the times of audio may be beside the exact ones: those of the first frame and of the present one are
// rounded in the file, and the library cuts them to milliseconds.
constexpr int64_t ROUNDING = 2 * TICKS_PER_MS;
constexpr int64_t TICKS_PER_SECOND = 1000 * TICKS_PER_MS;
constexpr int64_t USUAL_STEP = 40 * TICKS_PER_MS;

}  // namespace

// Before the first picture that is shown there are as many times as pictures can be decoded before it.
int64_t DecodeTimes::begin(size_t depth, int64_t *times, size_t count, int64_t lowest)
{
    set_depth(depth);
    std::sort(times, times + count);
    const int64_t first = count > 0 ? times[0] : 0;
    int64_t step = USUAL_STEP;
    for (size_t i = 1; i < count; ++i)
        step = std::min(step, times[i] - times[i - 1]);
    if (m_depth > 0 && lowest != INT64_MIN)
        step = std::min(step, (first - lowest) / static_cast<int64_t>(m_depth));
    step = std::max<int64_t>(step, 1);
    m_count = m_depth;
    for (size_t i = 0; i < m_count; ++i)
        m_waiting[i] = first - static_cast<int64_t>(m_count - i) * step;
    m_last = INT64_MIN;
    return m_count > 0 ? m_waiting[0] : first;
}

int64_t DecodeTimes::next(int64_t pts)
{
    int64_t *const end = m_waiting + m_count;
    int64_t *const at = std::upper_bound(m_waiting, end, pts);
    std::copy_backward(at, end, end + 1);
    *at = pts;
    ++m_count;

    const bool f_first = m_last == INT64_MIN;
    int64_t time = f_first ? m_waiting[0] : m_last + 1;
    if (m_count > m_depth) {
        const size_t left = m_count - m_depth;
        time = f_first ? m_waiting[left - 1] : std::max(time, m_waiting[left - 1]);
        std::copy(m_waiting + left, m_waiting + m_count, m_waiting);
        m_count = m_depth;
    }
    m_last = time;
    return time;
}

int64_t DecodeTimes::begin_again(int64_t pts, int64_t lowest)
{
    if (m_last >= pts - static_cast<int64_t>(m_depth) * USUAL_STEP) return m_last;
    begin(m_depth, &pts, 1, lowest);
    return next(pts);
}

// Audio

int64_t AudioTimes::next(int64_t told, Durations durations)
{
    const bool f_known =
        m_f_measured && (durations == Durations::COUNTED || std::abs(m_next - told) <= ROUNDING);
    if (!f_known && !stands_still(told, durations) && (m_f_begun || !is_on_grid(told))) {
        m_next = told;
        m_rest = m_rate / 2;
    }
    m_f_begun = true;
    m_f_measured = false;
    m_told = told;
    m_last = m_next;
    return m_last;
}

void AudioTimes::add(uint64_t samples, uint32_t rate)
{
    if (samples == 0 || rate == 0) return;
    if (samples != m_samples || rate != m_rate) set_step(samples, rate);
    m_next += m_step;
    m_rest += m_step_rest;
    if (m_rest >= rate) {
        m_rest -= rate;
        ++m_next;
    }
    m_f_measured = true;
}

void AudioTimes::set_step(uint64_t samples, uint32_t rate)
{
    const uint64_t ticks = samples * static_cast<uint64_t>(TICKS_PER_SECOND);
    if (rate != m_rate) m_rest = rate / 2;
    m_samples = samples;
    m_rate = rate;
    m_step = static_cast<int64_t>(ticks / rate);
    m_step_rest = ticks % rate;
}

// Whether it is the rounded time of a frame of the grid; that one has been found then.
bool AudioTimes::is_on_grid(int64_t told)
{
    if (m_grid.samples == 0 || m_grid.rate == 0 || told < m_grid.time - ROUNDING) return false;
    const uint64_t frame = uint64_t{m_grid.samples} * static_cast<uint64_t>(TICKS_PER_SECOND);
    const auto passed = static_cast<uint64_t>(std::max<int64_t>(told - m_grid.time, 0));
    m_rate = m_grid.rate;
    const uint64_t ticks = (passed * m_rate + frame / 2) / frame * frame + m_rate / 2;
    m_next = m_grid.time + static_cast<int64_t>(ticks / m_rate);
    m_rest = ticks % m_rate;
    return std::abs(m_next - told) <= ROUNDING;
}

// The clock

int64_t ClockBound::add(size_t lane, int64_t dts, bool f_other_expected)
{
    Lane &mine = m_lanes[lane];
    Lane &other = m_lanes[1 - lane];
    m_behind = other.f_begun ? other.last - dts : 0;
    // A lane that is behind may soon be farther behind.
    if (m_behind * 2 > m_spread) m_spread = std::min(m_behind * 2, MOST_SPREAD);
    mine = {true, dts, 0};
    if (!f_other_expected && !other.f_begun) return dts - FIRST_LEAD;

    if (other.units_of_other < UNITS_UNTIL_STALLED) ++other.units_of_other;
    const bool f_stalled = !other.f_begun || other.units_of_other >= UNITS_UNTIL_STALLED;
    int64_t bound = other.f_begun ? std::min(dts, other.last + SLACK) : dts - m_spread;
    if (f_stalled) bound = std::max(bound, dts - m_spread);
    return bound - FIRST_LEAD;
}

}  // namespace golt
