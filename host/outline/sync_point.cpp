#include "sync_point.h"

#include <algorithm>
#include <iterator>

#include "cluster_walk.h"
#include "sample_tables.h"

namespace {

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, uint32_t time_ms,
                                     const EvenIndex *even_index);
std::optional<SyncPoint> find_in_matroska(ByteSource &source, const Outline &outline,
                                          const Track &video, uint32_t time_ms, bool f_remote);

}  // namespace

std::optional<SyncPoint> find_sync_point(ByteSource &source, const Outline &outline,
                                         const Selection &selection, uint32_t time_ms,
                                         bool f_remote, const EvenIndex *even_index)
{
    const std::optional<size_t> video = selection.taken(outline, TrackKind::VIDEO);
    SyncPoint from_start = {{}, time_ms};
    switch (outline.container) {
    case Container::MP4:
        if (video) return find_in_mp4(source, outline.tracks[*video], time_ms, even_index);
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
        return KeySamples(source, track.mp4).walk([&](const KeySample &key) {
            take(key.shown_ms);
            return true;
        });
    }
    WalkOptions options;
    options.on_block = [&](const BlockSeen &block) {
        if (block.f_key && block.track == track.number) take(block.time);
        return true;
    };
    const ClusterWalk walk = walk_clusters(source, outline, options);
    return walk.f_whole || walk.cut_in;
}

namespace {

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, uint32_t time_ms,
                                     const EvenIndex *even_index)
{
    KeySamples samples(source, video.mp4, KeySamples::Sizes::LEFT_OUT, even_index);
    std::optional<KeySample> best;
    const bool f_read = samples.walk([&](const KeySample &key) {
        if (best && key.shown_ms > time_ms) return false;
        best = key;
        return true;
    });
    if (!f_read || !best) return {};
    SyncPoint point;
    if (best->sample != 0) point.ask_ms = samples.time_to_ask(best->number);
    if (best->sample != 0 && !point.ask_ms) return {};
    // The library cuts its times to milliseconds.
    point.from_ms = best->shown_ms - 1;
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
