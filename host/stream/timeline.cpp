#include "timeline.h"

#include <algorithm>

#include "ts_time.h"

Timeline::Timeline()
    : m_bins(BINS)
{
}

void Timeline::add(Stream stream, int64_t time, uint64_t bytes)
{
    std::map<int64_t, uint64_t> &waiting = m_courses[stream].waiting;
    waiting[time] += bytes;
    if (waiting.size() > MOST_WAITING) release_first(stream);
}

void Timeline::finish()
{
    for (const Stream stream : {VIDEO, AUDIO}) {
        while (!m_courses[stream].waiting.empty())
            release_first(stream);
    }
}

// Frames leave in order of time, so that all of them together pass over each bin once. One that comes too late
// for that has no length.
void Timeline::release_first(Stream stream)
{
    Course &course = m_courses[stream];
    const auto first = course.waiting.begin();
    const auto next = std::next(first);
    const int64_t time = first->first;
    if (course.released && time < *course.released) {
        spread(stream, time, time, first->second);
    } else {
        constexpr int64_t OF_ONLY_FRAME = TICKS_PER_SECOND / 10;
        if (next != course.waiting.end())
            course.last_step = next->first - time;
        else if (course.last_step == 0)
            course.last_step = OF_ONLY_FRAME;
        spread(stream, time, time + course.last_step, first->second);
        course.released = time;
    }
    course.waiting.erase(first);
}

void Timeline::spread(Stream stream, int64_t begin, int64_t end, uint64_t bytes)
{
    Span &span = m_courses[stream].span;
    span.begin = std::min(span.begin, begin);
    span.end = std::max(span.end, end);
    const size_t last = index_of(end);  // the bins may grow, before the first index is taken
    const auto all = static_cast<double>(bytes);
    for (size_t i = index_of(begin); i <= last; ++i) {
        const int64_t part = std::min(end, begin_of(i + 1)) - std::max(begin, begin_of(i));
        if (begin == end)
            m_bins[i].bytes[stream] += all;
        else if (part > 0)
            m_bins[i].bytes[stream] +=
                all * static_cast<double>(part) / static_cast<double>(end - begin);
    }
}

void Timeline::add_late(Stream stream, int64_t time, int64_t late)
{
    int64_t &most = m_bins[index_of(time)].late[stream];
    most = std::max(most, late);
}

void Timeline::add_key(int64_t time)
{
    std::optional<int64_t> &key = m_bins[index_of(time)].key;
    key = std::min(key.value_or(time), time);
    if (m_key_count++ == 0) m_first_key = m_last_key = time;
    m_longest_key_step = std::max(m_longest_key_step, time - m_last_key);
    m_last_key = std::max(m_last_key, time);
}

void Timeline::forget_keys()
{
    for (Bin &bin : m_bins)
        bin.key.reset();
    m_key_count = 0;
    m_longest_key_step = 0;
}

int64_t Timeline::begin() const
{
    return std::min(m_courses[VIDEO].span.begin, m_courses[AUDIO].span.begin);
}

int64_t Timeline::end() const
{
    return std::max(m_courses[VIDEO].span.end, m_courses[AUDIO].span.end);
}

double Timeline::bytes(Stream stream, int64_t begin, int64_t end) const
{
    const Span &span = m_courses[stream].span;
    double sum = 0;
    for (size_t i = known_index_of(begin); i <= known_index_of(end); ++i) {
        // What is in a bin lies between the ends of the stream.
        const int64_t bin_begin = std::max(begin_of(i), span.begin);
        const int64_t bin_end = std::min(begin_of(i + 1), span.end);
        const int64_t wanted = std::min(end, bin_end) - std::max(begin, bin_begin);
        if (wanted > 0)
            sum += m_bins[i].bytes[stream] * static_cast<double>(wanted) /
                   static_cast<double>(bin_end - bin_begin);
    }
    return sum;
}

int64_t Timeline::most_late(Stream stream, int64_t begin, int64_t end) const
{
    int64_t most = 0;
    for (size_t i = known_index_of(begin); i <= known_index_of(end - 1); ++i)
        most = std::max(most, m_bins[i].late[stream]);
    return most;
}

std::vector<int64_t> Timeline::keys() const
{
    std::vector<int64_t> keys;
    for (const Bin &bin : m_bins)
        if (bin.key) keys.push_back(*bin.key);
    return keys;
}

int64_t Timeline::mean_key_step() const
{
    if (m_key_count < 2) return 0;
    return (m_last_key - m_first_key) / static_cast<int64_t>(m_key_count - 1);
}

size_t Timeline::index_of(int64_t time)
{
    // The first frame of a file needn't be the first one that is shown. What is still before that counts to
    // the first bin.
    constexpr int64_t ROOM_BEFORE = 5 * TICKS_PER_SECOND;
    if (!m_start) m_start = time - ROOM_BEFORE;
    while ((time - *m_start) / m_width >= static_cast<int64_t>(BINS))
        double_width();
    return known_index_of(time);
}

size_t Timeline::known_index_of(int64_t time) const
{
    const int64_t index = (time - m_start.value_or(0)) / m_width;
    return static_cast<size_t>(std::clamp<int64_t>(index, 0, BINS - 1));
}

void Timeline::double_width()
{
    for (size_t i = 0; i < BINS / 2; ++i) {
        Bin both = m_bins[2 * i];
        both.merge(m_bins[2 * i + 1]);
        m_bins[i] = both;
    }
    std::fill(m_bins.begin() + BINS / 2, m_bins.end(), Bin());
    m_width *= 2;
}

void Timeline::Bin::merge(const Bin &other)
{
    for (const Stream stream : {VIDEO, AUDIO}) {
        bytes[stream] += other.bytes[stream];
        late[stream] = std::max(late[stream], other.late[stream]);
    }
    if (!key) key = other.key;
}
