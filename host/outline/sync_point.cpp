#include "sync_point.h"

#include <algorithm>
#include <iterator>

#include "cluster_walk.h"
#include "sample_tables.h"

namespace {

std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, const Track *audio,
                                     uint32_t time_ms, const EvenIndex *even_index);
SyncPoint find_audio_in_mp4(ByteSource &source, const Track &audio, uint32_t time_ms);
std::optional<SyncPoint> find_in_matroska(ByteSource &source, const Outline &outline,
                                          const Track &video, uint32_t time_ms, bool f_remote);

}  // namespace

std::optional<SyncPoint> find_sync_point(ByteSource &source, const Outline &outline,
                                         const Selection &selection, uint32_t time_ms,
                                         bool f_remote, const EvenIndex *even_index)
{
    const std::optional<size_t> video_at = selection.taken(outline, TrackKind::VIDEO),
                                audio_at = selection.taken(outline, TrackKind::AUDIO);
    const Track *const video = video_at ? &outline.tracks[*video_at] : nullptr;
    const Track *const audio = audio_at ? &outline.tracks[*audio_at] : nullptr;
    const SyncPoint from_start = {{}, time_ms};
    switch (outline.container) {
    case Container::MP4:
        if (video != nullptr) return find_in_mp4(source, *video, audio, time_ms, even_index);
        return audio != nullptr ? find_audio_in_mp4(source, *audio, time_ms) : from_start;
    case Container::MATROSKA:
        if (video != nullptr) return find_in_matroska(source, outline, *video, time_ms, f_remote);
        return from_start;
    case Container::MPEG_AUDIO: return from_start;
    case Container::TRANSPORT_STREAM:
    case Container::UNKNOWN: break;
    }
    return {};
}

bool are_apart(const Outline &outline, const Selection &selection, const EvenIndex *even_index)
{
    const std::optional<size_t> video = selection.taken(outline, TrackKind::VIDEO),
                                audio = selection.taken(outline, TrackKind::AUDIO);
    if (outline.container != Container::MP4 || !video || !audio) return false;
    const Mp4Details &one = outline.tracks[*video].mp4, &other = outline.tracks[*audio].mp4;
    return even_index != nullptr ||
           std::max(one.most_off - other.least_off, other.most_off - one.least_off) > MOST_APART_MS;
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

// The greatest time to ask for with which the library comes to the frame that is shown at a time, or at most so many
// frames after it. None: there is no limit.
std::optional<uint32_t> latest_to_ask(ByteSource &source, const Track &audio, int64_t time_ms,
                                      uint64_t next_ones)
{
    Mp4Details mp4 = audio.mp4;
    mp4.sync_samples.reset();  // the library goes to any frame
    KeySamples samples(source, mp4);
    uint64_t after = 1;  // the first frame may come later
    bool f_ended = true;
    const bool f_read = samples.walk([&](const KeySample &frame) {
        f_ended = frame.shown_ms <= time_ms;
        if (f_ended) after = frame.number + 1;
        return f_ended;
    });
    if (!f_read || (f_ended && samples.end() * 1000 <= static_cast<double>(time_ms))) return {};
    const std::optional<uint32_t> ask_ms = samples.time_to_ask(after + next_ones);
    return ask_ms && *ask_ms > 0 ? std::optional<uint32_t>(*ask_ms - 1) : ask_ms;
}

// The library comes to audio by the mean length of a frame, which may be far too late. Then it goes to a key picture
// before, and what isn't wanted is left out.
std::optional<SyncPoint> find_in_mp4(ByteSource &source, const Track &video, const Track *audio,
                                     uint32_t time_ms, const EvenIndex *even_index)
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
    // The library cuts its times to milliseconds.
    point.from_ms = best->shown_ms - 1;
    if (best->sample == 0) return point;
    point.ask_ms = samples.time_to_ask(best->number);
    if (!point.ask_ms) return {};
    if (audio == nullptr) return point;
    // A frame isn't worth all the pictures from one key picture to the next.
    constexpr uint64_t MAY_LACK = 1;
    std::optional<uint32_t> latest;
    if (even_index != nullptr)
        latest = static_cast<uint32_t>(std::max<int64_t>(point.from_ms - MOST_APART_MS, 0));
    else
        latest = latest_to_ask(source, *audio, point.from_ms, MAY_LACK);
    if (!latest || *point.ask_ms <= *latest) return point;
    point.ask_ms.reset();
    samples.walk([&](const KeySample &key) {
        const std::optional<uint32_t> ask_ms = samples.time_to_ask(key.number);
        if (!ask_ms || *ask_ms > *latest) return false;
        if (key.sample != 0) point.ask_ms = ask_ms;
        return true;
    });
    return point;
}

SyncPoint find_audio_in_mp4(ByteSource &source, const Track &audio, uint32_t time_ms)
{
    SyncPoint point = {time_ms, time_ms};
    if (audio.mp4.least_off >= 0) return point;
    if (const auto latest = latest_to_ask(source, audio, int64_t{time_ms} - 1, 0))
        point.ask_ms = std::min(time_ms, *latest);
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
