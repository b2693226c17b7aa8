#include "plan.h"

#include <algorithm>

void Plan::add(const KeyPlace &key)
{
    if (key.time <= latest()) return;
    if (is_before_nearer(key.time)) cut(*m_before);
    if (key.time <= m_begun.time + USUAL_LENGTH)
        m_before = key;
    else
        cut(key);
}

// Than the time, which may be after it.
bool Plan::is_before_nearer(int64_t time) const
{
    const int64_t wanted = m_begun.time + USUAL_LENGTH;
    return m_before && time > wanted && wanted - m_before->time <= time - wanted;
}

void Plan::end(int64_t time, uint64_t bytes)
{
    constexpr int64_t SHORTEST = 1;
    if (is_before_nearer(time)) cut(*m_before);
    cut({std::max(time, m_begun.time + SHORTEST), 0, std::max(bytes, m_begun.bytes)});
    m_segments.shrink_to_fit();
}

void Plan::cut(const KeyPlace &at)
{
    m_before.reset();
    if (is_full()) return;
    const uint64_t bytes = at.bytes > m_begun.bytes ? at.bytes - m_begun.bytes : 0;
    m_segments.push_back({m_begun.time, at.time, m_begun.place, bytes, m_begun.later});
    m_begun = at;
}
