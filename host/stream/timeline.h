// The course of a presentation in a fixed number of bins, which grow with its length: how many bytes are
// shown when, how far the streams are apart in the file, and where the key pictures are.

#ifndef HOST_STREAM_TIMELINE_H
#define HOST_STREAM_TIMELINE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

/// Times and lengths: 90 kHz.
class Timeline {
public:
    enum Stream { VIDEO, AUDIO, STREAMS };

    /// Where a stream begins and ends; begin is INT64_MAX where it has no frame.
    struct Span {
        int64_t begin = INT64_MAX;
        int64_t end = INT64_MIN;
    };

    Timeline();

    /// A frame, in the order of the file; its bytes count to the time until the next one is shown.
    void add(Stream stream, int64_t time, uint64_t bytes);
    /// The frame that is shown at a time comes so much later in the file than one of the other stream
    /// that is shown with it.
    void add_late(Stream stream, int64_t time, int64_t late);
    /// To be called when all frames have been added.
    void finish();
    void add_key(int64_t time);
    void forget_keys();

    bool is_empty() const { return begin() == INT64_MAX; }
    bool has(Stream stream) const { return m_courses[stream].span.begin != INT64_MAX; }
    Span span(Stream stream) const { return m_courses[stream].span; }
    int64_t begin() const;
    int64_t end() const;

    /// Of what is shown from begin to end.
    double bytes(Stream stream, int64_t begin, int64_t end) const;
    int64_t most_late(Stream stream, int64_t begin, int64_t end) const;
    /// Times of key pictures, ascending: all, or one for each bin.
    std::vector<int64_t> keys() const;
    uint64_t key_count() const { return m_key_count; }
    int64_t mean_key_step() const;  ///< 0 where there are fewer than two
    int64_t longest_key_step() const { return m_longest_key_step; }

private:
    static constexpr size_t BINS = 8192;
    // Pictures come in another order than they are shown in, but not by more than 16 of H.264.
    static constexpr size_t MOST_WAITING = 32;

    struct Bin {
        double bytes[STREAMS] = {};
        int64_t late[STREAMS] = {};
        std::optional<int64_t> key;

        void merge(const Bin &other);
    };
    struct Course {
        std::map<int64_t, uint64_t> waiting;  // bytes of frames by their times
        std::optional<int64_t> released;      // time of the last one that was spread
        int64_t last_step = 0;                // between the last two of them
        Span span;
    };

    void release_first(Stream stream);
    void spread(Stream stream, int64_t begin, int64_t end, uint64_t bytes);
    size_t index_of(int64_t time);
    size_t known_index_of(int64_t time) const;
    int64_t begin_of(size_t i) const { return *m_start + static_cast<int64_t>(i) * m_width; }
    void double_width();

    std::vector<Bin> m_bins;
    std::optional<int64_t> m_start;  // of the first bin
    int64_t m_width = 900;           // of a bin
    Course m_courses[STREAMS];
    uint64_t m_key_count = 0;
    int64_t m_first_key = 0, m_last_key = 0, m_longest_key_step = 0;
};

#endif
