// Matroska: by the Cues, else by a walk over the clusters. What the library reads is spliced: the headers, and then
// the clusters from some place on. So it needs no index of its own.

#include <algorithm>
#include <deque>

#include "cluster_walk.h"
#include "ebml.h"
#include "io/message.h"
#include "stream/source_bytes.h"
#include "survey.h"
#include "ts_time.h"

using namespace outline;

namespace {

// What the stage has to see before a segment.
constexpr int64_t TIME_BEFORE = 1500 * TICKS_PER_MS;

// In ticks of 90 kHz.
int64_t time_of(const Outline &outline, int64_t file_ticks)
{
    constexpr double NS_PER_TICK = 1e9 / TICKS_PER_SECOND;
    const double scale = static_cast<double>(outline.matroska.timestamp_scale);
    constexpr double MOST = 1e15;
    const double ticks = std::min(static_cast<double>(file_ticks) * scale / NS_PER_TICK, MOST);
    return (static_cast<int64_t>(ticks * 2) + 1) / 2;
}

/// The clusters from which those that come can be reached.
class Approach {
public:
    struct Place {
        int64_t time;
        uint64_t cluster;
        int64_t later = 0;  // as Segment::later
    };

    explicit Approach(uint64_t first_cluster, int64_t later = 0)
    {
        m_places.push_back({INT64_MIN, first_cluster, later});
    }
    void add(const Place &place)
    {
        const Place &last = m_places.back();
        if (last.time < place.time && last.cluster != place.cluster) m_places.push_back(place);
    }
    /// The last one that is early enough.
    const Place &to(int64_t time)
    {
        while (m_places.size() > 1 && m_places[1].time <= time - TIME_BEFORE)
            m_places.pop_front();
        return m_places.front();
    }

private:
    std::deque<Place> m_places;
};

// Of video and audio together, in a second.
double frame_rate_of(const Film &film)
{
    constexpr double USUAL_PICTURES = 30, USUAL_FRAMES = 50, NS_PER_SECOND = 1e9;
    const Track *const video = taken_track(film, TrackKind::VIDEO);
    const golt::AudioGrid &grid = film.file.audio_grid;
    const uint64_t each_ns = video->matroska.default_duration_ns.value_or(0);
    const double pictures =
        each_ns == 0 ? USUAL_PICTURES : NS_PER_SECOND / static_cast<double>(each_ns);
    return pictures + (grid.samples == 0 ? USUAL_FRAMES : double{1} * grid.rate / grid.samples);
}

/// Takes points of a film of pictures, each with its cluster, and makes the plan.
class Planner {
public:
    Planner(Film &film, int64_t first)
        : m_film(film)
        , m_first(first)
        , m_first_cluster(*film.file.outline.matroska.first_cluster)
        , m_frame_rate(frame_rate_of(film))
        , m_approach(m_first_cluster)
        , m_plan(film.segments, {0, m_first_cluster, 0})
    {
        film.segments.clear();
    }

    /// time: in ticks of the file.
    void add(int64_t time, uint64_t cluster, bool f_key)
    {
        const int64_t shown =
            film_time(m_film, time_of(m_film.file.outline, time), TrackKind::VIDEO);
        if (f_key && shown > m_first)
            m_plan.add({shown, m_approach.to(shown).cluster, estimate(shown, cluster)});
        m_approach.add({shown, cluster});
    }
    void end(int64_t time, uint64_t offset) { m_plan.end(time, estimate(time, offset)); }

private:
    // What is in the clusters, of all tracks.
    uint64_t estimate(int64_t shown, uint64_t offset) const
    {
        const double seconds = static_cast<double>(std::max<int64_t>(shown, 0)) / TICKS_PER_SECOND;
        return served_bytes(offset - std::min(offset, m_first_cluster),
                            static_cast<uint64_t>(seconds * m_frame_rate));
    }

    Film &m_film;
    const int64_t m_first;
    const uint64_t m_first_cluster;
    const double m_frame_rate;
    Approach m_approach;
    Plan m_plan;
};

// The library would go where the SeekHead leads to.
void hide_seek_heads(ByteSource &bytes, FilmFile &file)
{
    constexpr size_t MOST = 8;
    Reader reader(bytes);
    Stretch segment(reader, file.outline.matroska.segment_begin, file.head_end);
    while (const std::optional<Element> element = next_element(segment)) {
        Patch patch = {element->begin, {id::VOID_ELEMENT, 1}};
        const uint64_t size = element->end() - element->begin;
        if (element->id != id::SEEK_HEAD || size < patch.bytes.size()) continue;
        uint64_t left = size - patch.bytes.size();
        for (size_t i = patch.bytes.size() - 1; i > 1; --i, left >>= 8)
            patch.bytes[i] = static_cast<uint8_t>(left);
        if (file.patches.size() < MOST) file.patches.push_back(patch);
    }
}

const Track &leading_track(const Film &film)
{
    const Track *const video = taken_track(film, TrackKind::VIDEO);
    return video != nullptr ? *video : *taken_track(film, TrackKind::AUDIO);
}

// Points of the track, in the order of the file. False where there are none.
bool plan_by_cues(ByteSource &bytes, Film &film, Planner &planner)
{
    constexpr uint32_t POINT = 0xBB, TIME = 0xB3, POSITIONS = 0xB7, TRACK = 0xF7, CLUSTER = 0xF1;
    const MatroskaOutline &matroska = film.file.outline.matroska;
    const uint32_t number = leading_track(film).number;
    Reader reader(bytes);
    Stretch cues(reader, matroska.cues_place.begin, matroska.cues_place.end);
    bool f_any = false;
    while (const std::optional<Element> point = next_element(cues)) {
        if (point->id != POINT) continue;
        uint64_t time = 0;
        std::optional<uint64_t> place;
        Stretch children = point->body;
        while (const std::optional<Element> child = next_element(children)) {
            if (child->id == TIME) time = unsigned_of(*child);
            if (child->id != POSITIONS) continue;
            uint64_t track = 0, cluster = 0;
            Stretch position = child->body;
            while (const std::optional<Element> field = next_element(position)) {
                if (field->id == TRACK) track = unsigned_of(*field);
                if (field->id == CLUSTER) cluster = unsigned_of(*field);
            }
            if (track == number) place = cluster;
        }
        if (!place || time > UINT32_MAX || *place >= bytes.size()) continue;
        planner.add(static_cast<int64_t>(time), matroska.segment_begin + *place, true);
        f_any = true;
    }
    return f_any && !reader.has_failed();
}

// One pass over the file.
ClusterWalk plan_by_walk(ByteSource &bytes, Film &film, Planner &planner)
{
    const uint32_t number = leading_track(film).number;
    int64_t key = INT64_MIN;
    WalkOptions options;
    options.on_block = [&](const BlockSeen &block) {
        if (block.track != number) return true;
        film.f_independent = film.f_independent && block.time >= key;
        if (block.f_key) key = block.time;
        planner.add(block.time, block.cluster, block.f_key);
        return true;
    };
    return walk_clusters(bytes, film.file.outline, options);
}

// Whether pictures come after a key picture that are shown before it: those of a few segments tell. One encoder's
// groups are all of a kind.
bool has_open_groups(ByteSource &bytes, const Film &film)
{
    // Of the few pictures that come first after the key picture one would be such.
    constexpr size_t TRIALS = 3, MOST_BLOCKS = 400, LEADING = 3;
    const uint32_t number = leading_track(film).number;
    const size_t step = std::max<size_t>(film.segments.size() / TRIALS, 1);
    for (size_t i = 1; i < film.segments.size(); i += step) {
        size_t blocks = 0, after = 0;
        int64_t key = INT64_MIN;
        bool f_open = false;
        WalkOptions options;
        options.from = film.segments[i].place;
        options.on_block = [&](const BlockSeen &block) {
            if (block.track != number) return ++blocks < MOST_BLOCKS;
            if (key != INT64_MIN) f_open = f_open || block.time < key;
            if (block.f_key && key == INT64_MIN) key = block.time;
            return ++blocks < MOST_BLOCKS && !f_open && (key == INT64_MIN || ++after <= LEADING);
        };
        walk_clusters(bytes, film.file.outline, options);
        if (f_open) return true;
    }
    return false;
}

int64_t ticks_of_ns(int64_t ns)
{
    constexpr int64_t NS_PER_SECOND = 1000000000;
    return ns / NS_PER_SECOND * TICKS_PER_SECOND +
           ns % NS_PER_SECOND * TICKS_PER_SECOND / NS_PER_SECOND;
}

// Where the tracks end, since the film's begin: by the file's header. 0: it states nothing. FFmpeg states where a track
// ends, others how long it is; both then are within the whole, of which mkvmerge (libebml) states how long it is.
int64_t stated_end(const Film &film)
{
    const Outline &outline = film.file.outline;
    const bool f_ends = outline.matroska.muxing_app.compare(0, 4, "Lavf") == 0;
    const bool f_lasts = outline.matroska.muxing_app.compare(0, 7, "libebml") == 0;
    int64_t whole = ticks_of_ns(outline.duration_ns.value_or(0));
    if (whole != 0 && !f_lasts) whole = film_time(film, whole, TrackKind::VIDEO);
    int64_t end = 0;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const Track *const track = taken_track(film, kind);
        if (track == nullptr) continue;
        if (!track->duration_ns) return whole;
        const int64_t length = ticks_of_ns(*track->duration_ns);
        const int64_t start =
            kind == TrackKind::VIDEO ? film.file.video_start : film.file.audio_start;
        end = std::max(end, f_ends ? film_time(film, length, kind) : start + length);
    }
    return whole > 0 ? std::min(end, whole) : end;
}

// By the blocks that were there. Laced ones may be longer than the last of them.
int64_t walked_end(const Film &film, const ClusterWalk &walk, TrackKind kind)
{
    const Track *const track = taken_track(film, kind);
    const auto span = track == nullptr ? walk.tracks.end() : walk.tracks.find(track->number);
    if (span == walk.tracks.end() || span->second.blocks == 0) return 0;
    const BlockSpan &blocks = span->second;
    const int64_t step = (blocks.last - blocks.first) / static_cast<int64_t>(blocks.blocks);
    return film_time(film, time_of(film.file.outline, blocks.last + step), kind);
}

bool is_sparse(const Film &film)
{
    constexpr int64_t LONGEST = 30 * TICKS_PER_SECOND;
    return std::any_of(film.segments.begin(), film.segments.end(), [](const Segment &segment) {
        return segment.end - segment.start > LONGEST;
    });
}

// Of the leading track, in ticks of the file; 0: nothing is there.
int64_t first_time_at(Source &source, const Film &film, uint64_t cluster)
{
    int64_t time = 0;
    WalkOptions options;
    options.from = cluster;
    options.most_loads = 64;
    options.on_block = [&](const BlockSeen &block) {
        if (block.track != leading_track(film).number) return true;
        time = block.time;
        return false;
    };
    SourceBytes bytes(source);
    walk_clusters(bytes, film.file.outline, options);
    return time;
}

// The library keeps 32 bits, and takes any ticks for milliseconds.
int64_t library_time(int64_t file_ticks)
{
    return int64_t{static_cast<uint32_t>(file_ticks)} * TICKS_PER_MS;
}

// Audio alone, in one pass over the file. The library counts its frames on from the first one, whatever later blocks
// state, and so do all segments. time, later: of the first cluster.
void plan_by_frames(Source &source, Film &film, int64_t time, int64_t later)
{
    constexpr uint64_t NS_PER_MS = 1000000;
    const FilmFile &file = film.file;
    const Track &track = leading_track(film);
    const uint64_t first_cluster = *file.outline.matroska.first_cluster;
    const auto each_ns = static_cast<uint32_t>(track.matroska.default_duration_ns.value_or(0));
    FrameTimes times(film);
    Approach approach(first_cluster, later);
    Plan plan(film.segments, {0, first_cluster, 0, later});
    uint64_t frames = 0;
    const auto take_frame = [&](const BlockSeen &block) {
        int64_t told = times.next();
        if (each_ns != 0)
            told = time + static_cast<int64_t>(frames * each_ns / NS_PER_MS) * TICKS_PER_MS;
        else if (file.audio_grid.samples == 0)
            told = time_of(file.outline, block.time);
        times.add(told);
        ++frames;
        approach.add({times.time(), block.cluster, told - library_time(block.time)});
        if (times.time() < plan.due()) return;
        const Approach::Place &place = approach.to(times.time());
        plan.cut({times.time(), place.cluster, 0, place.later});
    };
    WalkOptions options;
    options.on_block = [&](const BlockSeen &block) {
        if (block.track != track.number) return true;
        for (uint64_t left = block.frames; left > 0 && !plan.is_full(); --left)
            take_frame(block);
        return !plan.is_full();
    };
    SourceBytes bytes(source);
    walk_clusters(bytes, file.outline, options);
    plan.end(times.end(), 0);
    // Clusters are longer than segments may be.
    const uint64_t size = source.size() - std::min(source.size(), first_cluster);
    const auto whole = static_cast<double>(served_bytes(size, frames));
    const auto length = static_cast<double>(film.segments.back().end);
    for (Segment &segment : film.segments) {
        const auto part = static_cast<double>(segment.end - segment.start) / length;
        segment.bytes = static_cast<uint64_t>(whole * part);
    }
}

}  // namespace

void survey_matroska(Source &source, Film &film)
{
    FilmFile &file = film.file;
    if (!file.outline.matroska.first_cluster)
        throw NotDone(source.path(), "no frame in it can be read");
    const uint64_t first_cluster = *file.outline.matroska.first_cluster;
    SourceBytes bytes(source);
    file.head_end = first_cluster;
    hide_seek_heads(bytes, file);
    const int64_t ticks = first_time_at(source, film, first_cluster);
    const bool f_video = taken_track(film, TrackKind::VIDEO) != nullptr;
    const int64_t time = time_of(file.outline, ticks);
    const int64_t later = f_video ? 0 : time - library_time(ticks);
    const int64_t first = look_at_begin(source, film, first_cluster, library_time(ticks), later);
    film.f_cut = file.outline.matroska.segment_end.value_or(0) > source.size();
    if (!f_video) return plan_by_frames(source, film, time, later);
    // 0: the blocks tell.
    const int64_t end = film.f_cut ? 0 : stated_end(film);
    if (end > 0 && file.outline.matroska.f_cues) {
        Planner planner(film, first);
        const bool f_cues = plan_by_cues(bytes, film, planner);
        planner.end(end, source.size());
        if (f_cues && !is_sparse(film)) {
            film.f_independent = !has_open_groups(bytes, film);
            return;
        }
    }
    Planner planner(film, first);
    const ClusterWalk walk = plan_by_walk(bytes, film, planner);
    const int64_t walked = walked_end(film, walk, TrackKind::VIDEO);
    const int64_t told = end > 0 ? end : walked_end(film, walk, TrackKind::AUDIO);
    planner.end(std::max(told, walked), source.size());
}
