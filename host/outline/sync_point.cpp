#include "sync_point.h"

#include <algorithm>
#include <iterator>

#include "cluster_walk.h"

namespace {

/// What a walk over the sync samples of MP4 has come to.
struct SampleWalk {
    bool f_read = false;        ///< all that was looked for could be read
    bool f_table = false;       ///< the samples' times follow from a table, not from one length
    uint32_t first_length = 0;  ///< of the first sample, in ticks
};
/// Takes the number of a sync sample, from 0, and when it is shown. False: the walk ends.
using TakeSample = std::function<bool(uint64_t number, int64_t shown_ms)>;

SampleWalk walk_sync_samples(ByteSource &source, const Mp4Details &mp4, const TakeSample &take);
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

bool list_key_pictures(ByteSource &source, const Outline &outline, const Selection &selection,
                       const std::function<void(int64_t time_ms)> &take)
{
    const std::optional<size_t> video = selection.taken(outline, TrackKind::VIDEO);
    if (!video) return false;
    const Track &track = outline.tracks[*video];
    if (outline.container == Container::MP4) {
        const TakeSample take_sample = [&](uint64_t, int64_t shown_ms) {
            take(shown_ms);
            return true;
        };
        return walk_sync_samples(source, track.mp4, take_sample).f_read;
    }
    WalkOptions options;
    options.key_track = track.number;
    options.key_until = INT64_MAX;
    options.on_key = take;
    const ClusterWalk walk = walk_clusters(source, outline, options);
    return walk.f_whole || walk.cut_in;
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
    /// Whether no other one follows.
    bool is_past_last() const { return m_next == UINT64_MAX; }

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

SampleWalk walk_sync_samples(ByteSource &source, const Mp4Details &mp4, const TakeSample &take)
{
    constexpr uint32_t MOST_LOADS = 8192;
    // Three days at 60 pictures a second. A few bytes may state more.
    constexpr uint64_t MOST_SAMPLES = 1 << 24;
    SampleWalk walk;
    if (mp4.timescale == 0) return walk;
    Reader reader(source, MOST_LOADS);
    // Three cursors: each has a window of its own.
    Reader lengths_reader(source, MOST_LOADS), offsets_reader(source, MOST_LOADS);
    Runs lengths(lengths_reader, mp4.stts), offsets(offsets_reader, mp4.ctts);
    SyncSamples syncs(reader, mp4);
    walk.f_table = lengths.entries() > 1 || offsets.entries() > 0;
    uint64_t decoded = 0;
    for (uint64_t sample = 0; sample < std::min(mp4.samples, MOST_SAMPLES); ++sample) {
        if (syncs.is_past_last()) break;
        const uint32_t length = lengths.next();
        const auto offset = static_cast<int32_t>(offsets.next());
        if (sample == 0) walk.first_length = length;
        if (syncs.is_sync(sample) &&
            !take(sample, (static_cast<int64_t>(decoded) + offset) * 1000 / mp4.timescale))
            break;
        decoded += length;
        if (decoded > INT64_MAX / 2000) break;
    }
    walk.f_read = !reader.has_failed() && !lengths_reader.has_failed();
    return walk;
}

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, uint32_t time_ms)
{
    uint64_t best_sample = 0;
    std::optional<int64_t> best_ms;
    const TakeSample take = [&](uint64_t number, int64_t shown_ms) {
        if (best_ms && shown_ms > time_ms) return false;
        best_sample = number;
        best_ms = shown_ms;
        return true;
    };
    const SampleWalk walk = walk_sync_samples(source, video.mp4, take);
    if (!walk.f_read || !best_ms) return {};
    SyncPoint point;
    if (best_sample != 0)
        point.ask_ms = time_to_ask(video.mp4, best_sample, walk.f_table, walk.first_length);
    if (best_sample != 0 && !point.ask_ms) return {};
    // The library cuts its times to milliseconds.
    point.from_ms = *best_ms - 1;
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
