// The key samples of a track of MP4 (ISO/IEC 14496-12), by its tables, which are read once from their begin on.

#ifndef HOST_OUTLINE_SAMPLE_TABLES_H
#define HOST_OUTLINE_SAMPLE_TABLES_H

#include <functional>

#include "even_index.h"
#include "outline.h"

struct KeySample {
    uint64_t sample = 0;   ///< its number, from 0
    uint64_t number = 0;   ///< the library's of it, which is another one by an EvenIndex
    int64_t shown_ms = 0;  ///< as the library states it: cut to milliseconds
    uint64_t bytes = 0;    ///< of all samples before it, if sizes are read
    bool f_leading =
        false;  ///< samples after the key sample before this one are shown before that one
};

class KeySamples {
public:
    enum class Sizes { READ, LEFT_OUT };

    /// source, mp4, even_index: have to outlive the object. even_index: by which the library reads the file; or null.
    KeySamples(ByteSource &source, const Mp4Details &mp4, Sizes sizes = Sizes::LEFT_OUT,
               const EvenIndex *even_index = nullptr)
        : m_source(source)
        , m_mp4(mp4)
        , m_sizes(sizes)
        , m_even_index(even_index != nullptr && !even_index->keys.empty() ? even_index : nullptr)
    {
    }

    /// Shows the key samples in the order of decoding, until take returns false. False where a table can't be read.
    bool walk(const std::function<bool(const KeySample &)> &take);
    /// By which the library counts, ms. After a walk.
    double interval() const
    {
        return m_even_index != nullptr ? m_even_index->interval : m_interval;
    }
    /// What the library has to be asked for so that it goes to a key sample; ms. After a walk. None: it can't go there.
    std::optional<uint32_t> time_to_ask(uint64_t number) const;
    /// When the last of the samples that the walk has come to has been shown; seconds.
    double end() const;

private:
    void set_interval(bool f_table, uint32_t first_length);
    double ms_of(uint64_t samples) const { return static_cast<double>(samples) * m_interval; }

    ByteSource &m_source;
    const Mp4Details &m_mp4;
    const Sizes m_sizes;
    const EvenIndex *const m_even_index;
    double m_interval = 0;   // ms, by which the library counts
    int64_t m_end = 0;       // ticks
    uint64_t m_untimed = 0;  // samples that have no times but by the interval
};

/// How many samples of a track come before the first one that isn't whole in a file of this size; bytes.
uint64_t samples_within(ByteSource &source, const Mp4Details &mp4, uint64_t size);

#endif
