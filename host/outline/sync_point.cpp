#include "sync_point.h"

#include <algorithm>
#include <iterator>

#include "cluster_walk.h"

namespace {

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, uint32_t time_ms);
std::optional<SyncPoint> find_in_matroska(ByteSource &source, const Outline &outline,
                                          const Track &video, uint32_t time_ms, bool f_remote);

}  // namespace

std::optional<SyncPoint> find_sync_point(ByteSource &source, const Outline &outline,
                                         const Selection &selection, uint32_t time_ms,
                                         bool f_remote)
{
    const std::optional<size_t> video = selection.taken(outline, TrackKind::VIDEO);
    SyncPoint from_start = {{}, time_ms};
    switch (outline.container) {
    case Container::MP4:
        if (video) return find_in_mp4(source, outline.tracks[*video], time_ms);
        from_start.ask_ms = time_ms;  // audio is sought to the frame that covers the time
        return from_start;
    case Container::MATROSKA:
        if (video)
            return find_in_matroska(source, outline, outline.tracks[*video], time_ms, f_remote);
        return from_start;
    case Container::MPEG_AUDIO: return from_start;
    case Container::TRANSPORT_STREAM:
    case Container::UNKNOWN: break;
    }
    return {};
}

namespace {

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

// The library counts by the mean length of a sample and goes on to the next sync sample.
std::optional<uint32_t> time_to_ask(const Mp4Details &mp4, uint64_t sample, bool f_table,
                                    uint32_t first_length)
{
    const uint64_t duration_ms =
        mp4.duration / mp4.timescale * 1000 + mp4.duration % mp4.timescale * 1000 / mp4.timescale;
    double interval = f_table ? 0 : first_length * (1000.0 / mp4.timescale);
    if (interval == 0 && mp4.samples != 0)
        interval = static_cast<double>(duration_ms) / static_cast<double>(mp4.samples);
    const double exact = static_cast<double>(sample) * interval;
    if (interval <= 0 || exact >= UINT32_MAX) return {};
    const auto whole = static_cast<uint32_t>(exact);
    return whole < exact ? whole + 1 : whole;
}

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, uint32_t time_ms)
{
    constexpr uint32_t MOST_LOADS = 8192;
    // Three days at 60 pictures a second. A few bytes may state more.
    constexpr uint64_t MOST_SAMPLES = 1 << 24;
    const Mp4Details &mp4 = video.mp4;
    Reader reader(source, MOST_LOADS);
    // Three cursors: each has a window of its own.
    Reader lengths_reader(source, MOST_LOADS), offsets_reader(source, MOST_LOADS);
    Runs lengths(lengths_reader, mp4.stts), offsets(offsets_reader, mp4.ctts);
    SyncSamples syncs(reader, mp4);
    if (mp4.timescale == 0) return {};
    uint64_t decoded = 0, best_sample = 0;
    int64_t best_ms = 0;
    uint32_t first_length = 0;
    bool f_found = false;
    for (uint64_t sample = 0; sample < std::min(mp4.samples, MOST_SAMPLES); ++sample) {
        const uint32_t length = lengths.next();
        const auto offset = static_cast<int32_t>(offsets.next());
        if (sample == 0) first_length = length;
        if (syncs.is_sync(sample)) {
            const int64_t shown_ms =
                (static_cast<int64_t>(decoded) + offset) * 1000 / mp4.timescale;
            if (f_found && shown_ms > time_ms) break;
            best_sample = sample;
            best_ms = shown_ms;
            f_found = true;
        }
        decoded += length;
        if (decoded > INT64_MAX / 2000) break;
    }
    if (reader.has_failed() || lengths_reader.has_failed() || !f_found) return {};
    const bool f_table = lengths.entries() > 1 || offsets.entries() > 0;
    SyncPoint point;
    if (best_sample != 0) point.ask_ms = time_to_ask(mp4, best_sample, f_table, first_length);
    if (best_sample != 0 && !point.ask_ms) return {};
    // The library cuts its times to milliseconds.
    point.from_ms = best_ms - 1;
    return point;
}

// The library goes to the last cue that isn't after the time asked for, whatever its track, and refuses one
// at or after the last cue of all.
bool leads_to_track(const MatroskaOutline &matroska, uint64_t time, uint64_t track)
{
    const auto after = std::find_if(matroska.cues.begin(), matroska.cues.end(),
                                    [&](const Cue &cue) { return cue.time > time; });
    return after != matroska.cues.begin() && after != matroska.cues.end() &&
           matroska.more_cues == 0 && std::prev(after)->track == track;
}

// From the cue it reads on to a picture that is known to be independent, or to the time asked for. What
// comes before the key picture is left out; where the picture's own cue can't be had, from the one before.
std::optional<SyncPoint> find_in_matroska(ByteSource &source, const Outline &outline,
                                          const Track &video, uint32_t time_ms, bool f_remote)
{
    const MatroskaOutline &matroska = outline.matroska;
    const double ticks =
        static_cast<double>(time_ms) * 1e6 / static_cast<double>(matroska.timestamp_scale);
    const auto until = static_cast<uint64_t>(ticks);
    std::optional<uint64_t> key, before;
    for (const Cue &cue : matroska.cues) {
        if (cue.track != video.number || cue.time > until || cue.time > UINT32_MAX) continue;
        if (key && cue.time < *key) continue;
        if (key && cue.time > *key) before = key;
        key = cue.time;
    }
    SyncPoint point;
    if (key) {
        const bool f_own = leads_to_track(matroska, *key, video.number);
        const std::optional<uint64_t> ask = f_own && *key != 0 ? key : before;
        if (matroska.f_cues_announced && ask) point.ask_ms = static_cast<uint32_t>(*ask);
        point.from_ms = static_cast<int64_t>(*key);
        return point;
    }
    if (f_remote) return {};
    WalkOptions options;
    options.key_track = video.number;
    options.key_until = static_cast<int64_t>(until);
    const ClusterWalk walk = walk_clusters(source, outline, options);
    if (!walk.key) return {};
    point.from_ms = *walk.key;
    return point;
}

}  // namespace
