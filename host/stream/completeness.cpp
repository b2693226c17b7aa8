#include "completeness.h"

#include <algorithm>

#include <fmt/format.h>

#include "cluster_walk.h"
#include "io/text.h"
#include "time_text.h"

namespace {

constexpr int64_t NS_PER_MS = 1000000;
constexpr int64_t MOST_MISSING_MS = 250;

/// How far a stream got, and how far it should have.
struct Reach {
    int64_t reached_ms = 0;
    int64_t end_ms = 0;
    bool f_at_most = false;  // the end may be that of another track

    int64_t missing_ms() const { return end_ms - reached_ms; }
    bool is_short() const { return missing_ms() >= MOST_MISSING_MS; }
    std::string text() const
    {
        return fmt::format("ended at {} of {}{}", time_text(reached_ms),
                           f_at_most ? "at most " : "", time_text(end_ms));
    }
};

void append(std::string &text, const std::string &more);
std::string find_damage(const Tally &tally);
Reach worst_reach(const Delivery &delivery);
std::string find_loss_in_mp4(const Delivery &delivery);
std::string find_loss_in_matroska(const Delivery &delivery, ByteSource &source);
std::string find_loss_in_mpeg_audio(const Delivery &delivery);

// Where the last frame ends if it is the track's last one: by the tables of MP4, where it may be longer than the others.
int64_t last_end_ms(const Delivery &delivery, TrackKind kind, const StreamTally &tally)
{
    const std::optional<size_t> index = delivery.selection.taken(delivery.outline, kind);
    if (!index) return 0;
    const Mp4Details &mp4 = delivery.outline.tracks[*index].mp4;
    if (mp4.timescale == 0 || tally.frames == 0) return 0;
    if (delivery.start_ms == 0 && tally.frames < mp4.samples) return 0;
    return tally.reached / TICKS_PER_MS + int64_t{mp4.last_length} * 1000 / mp4.timescale;
}

// How far the stream of a kind got.
int64_t reached_ms(const Delivery &delivery, TrackKind kind)
{
    const StreamTally &tally =
        kind == TrackKind::VIDEO ? delivery.tally.video() : delivery.tally.audio();
    return std::max(
        {tally.end() / TICKS_PER_MS, last_end_ms(delivery, kind, tally), delivery.start_ms});
}

}  // namespace

std::string find_loss(const Delivery &delivery, ByteSource &source)
{
    std::string loss;
    if (!delivery.f_stopped) {
        switch (delivery.outline.container) {
        case Container::MP4: loss = find_loss_in_mp4(delivery); break;
        case Container::MATROSKA: loss = find_loss_in_matroska(delivery, source); break;
        case Container::MPEG_AUDIO: loss = find_loss_in_mpeg_audio(delivery); break;
        case Container::TRANSPORT_STREAM:
        case Container::UNKNOWN: break;
        }
        const std::optional<uint64_t> next = find_next_file(source, delivery.outline);
        if (next)
            append(loss,
                   fmt::format("only its first file is remuxed; another one begins at byte {}",
                               *next));
    }
    append(loss, find_damage(delivery.tally));
    return loss;
}

namespace {

void append(std::string &text, const std::string &more)
{
    if (!text.empty() && !more.empty()) text += "; ";
    text += more;
}

std::string find_damage(const Tally &tally)
{
    const uint64_t count = tally.video().damaged + tally.audio().damaged;
    if (count == 0) return "";
    const StreamTally &first = tally.video().damaged != 0 ? tally.video() : tally.audio();
    return fmt::format("{} damaged, the first at {}",
                       counted(count, "frame") + (count == 1 ? " is" : " are"),
                       time_text(first.first_damaged / TICKS_PER_MS));
}

// Of the tracks that are taken, the one that lacks most. A track whose duration isn't stated counts as
// as long as the file.
Reach worst_reach(const Delivery &delivery)
{
    Reach worst;
    const std::vector<Track> &tracks = delivery.outline.tracks;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const std::optional<size_t> index = delivery.selection.taken(delivery.outline, kind);
        if (!index) continue;
        const std::optional<int64_t> duration = tracks[*index].duration_ns;
        const int64_t end_ns = duration.value_or(delivery.outline.duration_ns.value_or(0));
        const Reach reach = {reached_ms(delivery, kind),
                             std::min(end_ns / NS_PER_MS, delivery.end_ms),
                             !duration && tracks.size() > 1};
        if (reach.missing_ms() > worst.missing_ms() || worst.end_ms == 0) worst = reach;
    }
    return worst;
}

// The tables state the number of samples, their durations, and where they are.
std::string find_loss_in_mp4(const Delivery &delivery)
{
    const Outline &outline = delivery.outline;
    if (outline.mp4.f_moof) return "fragmented MP4: what is in the fragments isn't remuxed";
    const Reach reach = worst_reach(delivery);
    uint64_t media_end = 0;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const std::optional<size_t> index = delivery.selection.taken(outline, kind);
        if (index) media_end = std::max(media_end, outline.tracks[*index].mp4.end.value_or(0));
    }
    std::string text = reach.is_short() ? reach.text() : "";
    if (outline.size != 0 && media_end > outline.size)
        text += fmt::format("{}the file was cut off, {} missing", text.empty() ? "" : ": ",
                            counted(media_end - outline.size, "byte"));
    if (outline.mp4.f_moov_cut) text += text.empty() ? "moov is cut off" : "; moov is cut off";
    return text;
}

/// What gives rise to a doubt: then the clusters are looked at.
bool is_doubtful(const Delivery &delivery, const Reach &reach)
{
    const MatroskaOutline &matroska = delivery.outline.matroska;
    const bool f_cut = matroska.segment_end && delivery.outline.size != 0 &&
                       *matroska.segment_end > delivery.outline.size;
    const StreamTally &video = delivery.tally.video();
    const bool f_gap = video.longest_step > MOST_MISSING_MS * TICKS_PER_MS + 2 * video.mean_step();
    // What is found then is damage, or nothing.
    constexpr int64_t A_FEW_FRAMES_MS = 100;
    return reach.end_ms == 0 || reach.missing_ms() > A_FEW_FRAMES_MS || f_cut ||
           !matroska.segment_end || f_gap;
}

// The last block of the tracks that are taken.
Reach reach_by_blocks(const Delivery &delivery, const ClusterWalk &walk)
{
    Reach worst;
    const double ms_per_tick =
        static_cast<double>(delivery.outline.matroska.timestamp_scale) / NS_PER_MS;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const std::optional<size_t> index = delivery.selection.taken(delivery.outline, kind);
        if (!index) continue;
        const auto span = walk.tracks.find(delivery.outline.tracks[*index].number);
        if (span == walk.tracks.end()) continue;
        const Reach reach = {
            reached_ms(delivery, kind),
            static_cast<int64_t>(static_cast<double>(span->second.last) * ms_per_tick)};
        if (reach.missing_ms() > worst.missing_ms() || worst.end_ms == 0) worst = reach;
    }
    return worst;
}

// The header states the duration of the longest track, which may be one that isn't taken, and nothing of
// what follows when a file is cut. The blocks do.
std::string find_loss_in_matroska(const Delivery &delivery, ByteSource &source)
{
    constexpr uint32_t MOST_REMOTE_LOADS = 64;
    const Reach by_header = worst_reach(delivery);
    if (!is_doubtful(delivery, by_header)) return "";
    WalkOptions options;
    if (delivery.f_remote) options.most_loads = MOST_REMOTE_LOADS;
    const ClusterWalk walk = walk_clusters(source, delivery.outline, options);
    Reach reach = reach_by_blocks(delivery, walk);
    const bool f_by_header = by_header.is_short() && by_header.end_ms > reach.end_ms;
    if (walk.f_whole) return reach.is_short() ? reach.text() : "";
    if (f_by_header) reach = by_header;
    const std::string prefix = reach.is_short() ? reach.text() + ": " : "";
    if (walk.damaged_at) return prefix + fmt::format("damaged at byte {}", *walk.damaged_at);
    if (walk.cut_in) return prefix + "the file was cut off";
    if (walk.parted_at)
        return prefix + fmt::format("an element between clusters, at byte {}, ends the stream",
                                    *walk.parted_at);
    return by_header.is_short() ? by_header.text() : "";
}

// Frame follows frame to the tags at the end; the first one may state how many there are.
std::string find_loss_in_mpeg_audio(const Delivery &delivery)
{
    const MpegAudioOutline &audio = delivery.outline.mpeg_audio;
    const StreamTally &tally = delivery.tally.audio();
    if (!audio.first_frame || tally.frames == 0 || tally.sample_rate == 0) return "";
    Reach reach = {tally.end() / TICKS_PER_MS, 0};
    const auto frame_ms = [&](uint64_t frames) {
        return static_cast<int64_t>(frames * audio.samples * 1000 / tally.sample_rate);
    };
    if (audio.frames) {
        const bool f_own_frame = audio.header != MpegAudioOutline::Header::NONE;
        reach.end_ms = frame_ms(*audio.frames + (f_own_frame ? 1 : 0));
    }
    if (audio.end == 0) return reach.is_short() ? reach.text() : "";
    const uint64_t expected = audio.end - std::min(audio.end, *audio.first_frame);
    if (tally.bytes > expected)
        return (reach.is_short() ? reach.text() + ": " : "") +
               fmt::format("the last frame is cut, {} missing",
                           counted(tally.bytes - expected, "byte"));
    const uint64_t rest = expected - tally.bytes;
    const auto rest_ms = static_cast<int64_t>(
        static_cast<double>(rest) / static_cast<double>(std::max<uint64_t>(tally.bytes, 1)) *
        static_cast<double>(reach.reached_ms));
    reach.end_ms = std::max(reach.end_ms, reach.reached_ms + rest_ms);
    if (!reach.is_short()) return "";
    if (rest == 0) return reach.text();
    return reach.text() + fmt::format(": {} after that belong to no frame", counted(rest, "byte"));
}

}  // namespace
