// The course of a presentation in a fixed number of bins, which grow with its length.

#ifndef HOST_STREAM_TIMELINE_H
#define HOST_STREAM_TIMELINE_H

#include <array>
#include <cstddef>
#include <cstdint>

struct TimelineBin {
    uint64_t video_bytes = 0;
    uint64_t audio_bytes = 0;
    int64_t audio_late = 0;  ///< most that audio comes behind video in the file, 90 kHz
    int64_t video_late = 0;  ///< the other way round

    void merge(const TimelineBin &other);
};

class Timeline {
public:
    static constexpr size_t BINS = 480;

    /// The bin of a time, 90 kHz. Those before the first one count to its bin. The reference is good
    /// until the next call.
    TimelineBin &at(int64_t time);

    bool is_empty() const { return m_used == 0; }
    int64_t start() const { return m_start; }
    int64_t end() const { return m_start + m_width * static_cast<int64_t>(m_used); }
    int64_t width() const { return m_width; }  ///< of a bin
    size_t used() const { return m_used; }
    const TimelineBin &bin(size_t i) const { return m_bins[i]; }

private:
    void double_width();

    std::array<TimelineBin, BINS> m_bins = {};
    size_t m_used = 0;
    int64_t m_start = 0;
    int64_t m_width = 9000;
};

#endif
