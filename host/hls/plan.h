// Where a film is cut: at key pictures nearest to six seconds apart.

#ifndef HOST_HLS_PLAN_H
#define HOST_HLS_PLAN_H

#include <optional>

#include "film.h"

/// A place where a segment may begin.
struct KeyPlace {
    int64_t time = 0;    ///< ticks of 90 kHz since the film's begin
    uint64_t place = 0;  ///< as Segment::place
    uint64_t bytes = 0;  ///< of the film before it, as it is served
    int64_t later = 0;   ///< as Segment::later
};

class Plan {
public:
    static constexpr int64_t USUAL_LENGTH = 6 * 90000;

    /// first: of the film's first segment; the times of places begin there or after it.
    Plan(std::vector<Segment> &segments, const KeyPlace &first)
        : m_segments(segments)
        , m_begun(first)
    {
    }

    /// Takes the next place. One that isn't after those before it is passed over.
    void add(const KeyPlace &key);
    /// Begins a segment there, whatever the length.
    void cut(const KeyPlace &at);
    /// The film ends at the time, with so many bytes before it.
    void end(int64_t time, uint64_t bytes);
    /// The time of the last place.
    int64_t latest() const { return m_before ? m_before->time : m_begun.time; }
    /// From when on another one may begin, of a film that can be cut anywhere.
    int64_t due() const { return (m_begun.time / USUAL_LENGTH + 1) * USUAL_LENGTH; }
    bool is_full() const { return m_segments.size() >= MOST_SEGMENTS; }

private:
    // Three days. A few bytes may state more.
    static constexpr size_t MOST_SEGMENTS = 50000;

    bool is_before_nearer(int64_t time) const;

    std::vector<Segment> &m_segments;
    KeyPlace m_begun;
    std::optional<KeyPlace> m_before;  // the last place not after the usual length
};

#endif
