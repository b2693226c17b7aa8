#include "sample_tables.h"

#include <algorithm>

namespace {

// 38 hours at 60 pictures a second. A few bytes may state more.
constexpr uint64_t MOST_SAMPLES = 1 << 23;
constexpr uint32_t MOST_LOADS = 8192;

/// A table of runs: a count and a value each ("stts", "ctts").
class Runs {
public:
    Runs(Reader &reader, const TablePlace &place)
        : m_body(reader, place.begin, place.end)
    {
        m_body.skip(4);
        m_entries = place.begin == 0 ? 0 : m_body.u32();
    }
    uint64_t entries() const { return m_entries; }
    /// The value of the next sample; 0 beyond the table.
    uint32_t next()
    {
        while (m_left == 0) {
            if (m_read == m_entries || m_body.left() == 0) return 0;
            ++m_read;
            m_left = m_body.u32();
            m_value = m_body.u32();
        }
        --m_left;
        return m_value;
    }

private:
    Stretch m_body;
    uint64_t m_entries = 0, m_read = 0;
    uint32_t m_left = 0, m_value = 0;
};

/// The numbers of sync samples, from 0.
class SyncSamples {
public:
    SyncSamples(Reader &reader, const Mp4Details &mp4)
        : m_body(reader, mp4.stss.begin, mp4.stss.end)
        , m_f_all(!mp4.sync_samples)
    {
        m_body.skip(8);
    }
    /// Whether the sample is one; ask in rising order.
    bool is_sync(uint64_t sample)
    {
        while (!m_f_all && !m_body.is_short() && m_next < sample + 1)
            m_next = m_body.left() < 4 ? UINT64_MAX : m_body.u32();
        return m_f_all || m_next == sample + 1;
    }

private:
    Stretch m_body;
    const bool m_f_all;
    uint64_t m_next = 0;  // counts from 1
};

/// Sizes of samples ("stsz").
class SampleSizes {
public:
    SampleSizes(Reader &reader, const TablePlace &place)
        : m_body(reader, place.begin, place.end)
    {
        m_body.skip(4);
        m_constant = m_body.u32();
        m_body.skip(4);
    }
    /// Of the next sample; 0 beyond the table.
    uint32_t next() { return m_constant != 0 ? m_constant : m_body.u32(); }

private:
    Stretch m_body;
    uint32_t m_constant = 0;
};

/// Samples of each chunk ("stsc"): an entry holds for the chunks from its own up to that of the next one.
class ChunkSamples {
public:
    ChunkSamples(Reader &reader, const TablePlace &place)
        : m_body(reader, place.begin, place.end)
    {
        m_body.skip(8);
        read_next();
    }
    uint32_t next()
    {
        for (++m_chunk; m_f_next && m_chunk >= m_next_begin;) {
            m_samples = m_next_samples;
            read_next();
        }
        return m_samples;
    }

private:
    void read_next()
    {
        constexpr uint64_t ENTRY_SIZE = 12;
        m_f_next = m_body.left() >= ENTRY_SIZE;
        if (!m_f_next) return;
        m_next_begin = m_body.u32();
        m_next_samples = m_body.u32();
        m_body.skip(4);  // sample_description_index
    }

    Stretch m_body;
    uint64_t m_chunk = 0;  // counts from 1
    uint32_t m_samples = 0, m_next_begin = 0, m_next_samples = 0;
    bool m_f_next = false;
};

}  // namespace

uint64_t samples_within(ByteSource &source, const Mp4Details &mp4, uint64_t size)
{
    Reader chunks_reader(source, MOST_LOADS), offsets_reader(source, MOST_LOADS),
        sizes_reader(source, MOST_LOADS);
    SampleSizes sizes(sizes_reader, mp4.stsz);
    ChunkSamples chunks(chunks_reader, mp4.stsc);
    Stretch offsets(offsets_reader, mp4.stco.begin, mp4.stco.end);
    offsets.skip(8);
    const uint64_t most = std::min(mp4.samples, MOST_SAMPLES);
    uint64_t samples = 0;
    while (offsets.left() >= 4 && samples < most) {
        uint64_t end = offsets.u32();
        for (uint32_t left = chunks.next(); left > 0 && samples < most; --left, ++samples) {
            end += sizes.next();
            if (end > size) return samples;
        }
    }
    return mp4.samples;
}

bool KeySamples::walk(const std::function<bool(const KeySample &)> &take)
{
    if (m_mp4.timescale == 0) return false;
    // Each cursor has a window of its own.
    Reader lengths_reader(m_source, MOST_LOADS), offsets_reader(m_source, MOST_LOADS),
        syncs_reader(m_source, MOST_LOADS), sizes_reader(m_source, MOST_LOADS);
    Runs lengths(lengths_reader, m_mp4.stts), offsets(offsets_reader, m_mp4.ctts);
    SyncSamples syncs(syncs_reader, m_mp4);
    SampleSizes sizes(sizes_reader, m_mp4.stsz);
    const bool f_table = lengths.entries() > 1 || offsets.entries() > 0;
    int64_t decoded = 0, shown_last = INT64_MIN;
    KeySample key;
    size_t keys = 0;
    for (uint64_t sample = 0; sample < std::min(m_mp4.samples, MOST_SAMPLES); ++sample) {
        const uint32_t length = lengths.next();
        const int64_t shown = decoded + static_cast<int32_t>(offsets.next());
        if (sample == 0) set_interval(f_table, length);
        if (syncs.is_sync(sample)) {
            key.sample = key.number = sample;
            if (m_even_index != nullptr) {
                if (keys == m_even_index->keys.size()) return false;
                key.number = m_even_index->keys[keys++];
            }
            key.shown_ms =
                f_table ? shown * 1000 / m_mp4.timescale : static_cast<int64_t>(ms_of(sample));
            if (!take(key)) break;
            key.f_leading = false;
            shown_last = shown;
        }
        key.f_leading = key.f_leading || shown < shown_last;
        m_end = std::max(m_end, shown + length);
        if (!f_table && length == 0) m_untimed = sample + 1;
        if (m_sizes == Sizes::READ) key.bytes += sizes.next();
        decoded += length;
        if (decoded > INT64_MAX / 2000) break;
    }
    return !syncs_reader.has_failed() && !lengths_reader.has_failed();
}

// By the mean length of a sample where times are in a table; it goes on to the next key sample.
void KeySamples::set_interval(bool f_table, uint32_t first_length)
{
    m_interval = f_table ? 0 : first_length * (1000.0 / m_mp4.timescale);
    if (m_interval == 0) m_interval = mean_interval(m_mp4);
}

double KeySamples::end() const
{
    constexpr double MS_PER_SECOND = 1000;
    return std::max(static_cast<double>(m_end) / m_mp4.timescale, ms_of(m_untimed) / MS_PER_SECOND);
}

std::optional<uint32_t> KeySamples::time_to_ask(uint64_t number) const
{
    const double exact = static_cast<double>(number) * interval();
    if (interval() <= 0 || exact >= UINT32_MAX) return {};
    const auto whole = static_cast<uint32_t>(exact);
    return whole < exact ? whole + 1 : whole;
}
