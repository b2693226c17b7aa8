#include "even_index.h"

#include <algorithm>

#include "index_writer.h"

namespace {

// Receivers keep a second of a stream (ISO/IEC 13818-1). Half of it may be used up.
static_assert(MOST_APART_MS <= 500, "the stage needs the other half");
constexpr double MOST_OFF = MOST_APART_MS / 2.0;  // of each track
// Below a millisecond the library can't be asked for each number.
constexpr double SHORTEST_INTERVAL = 1.01;  // ms
// Of a track with fillers, and for each byte of the file: 4.8 hours of 60 pictures a second, with audio of 8 kbit/s. So a
// few bytes that state days don't cost much.
constexpr uint64_t MOST_NUMBERS = 1 << 20, FEW_NUMBERS = 1 << 14, BYTES_PER_NUMBER = 16;
constexpr size_t MOST_HEADERS = 4096;  // bytes that a track usually has beside its tables
constexpr uint32_t TICKS_PER_MS = 90;
constexpr uint64_t POSITIONS_END = uint64_t{1} << 32;  // bytes that the library reaches
constexpr uint32_t FILLER_TICKS = UINT32_MAX;  // time of fillers, on the clock of their track

enum { VIDEO, AUDIO };

/// A track, and how its samples are numbered.
struct Plan {
    const Track *track = nullptr;
    double start = 0;  // ms after the track that starts first
    SampleTables tables;
    bool f_even = false;       // it gets fillers
    double interval = 0;       // ms, by which samples are numbered
    uint64_t numbers = 0;      // samples and fillers
    uint32_t duration = 0;     // ticks; the library's interval is this by numbers
    double told_interval = 0;  // ms, that one
    uint32_t filler_time = 0;  // as the library tells it, ms

    double least_off() const { return track->mp4.least_off - start; }
    double most_off() const { return track->mp4.most_off - start; }
    double ms(uint64_t ticks) const
    {
        return static_cast<double>(ticks) * 1000.0 / track->mp4.timescale;
    }
    /// Runs of one length become one run, by which the library counts then.
    bool is_constant() const
    {
        const std::vector<uint32_t> &lengths = tables.lengths;
        for (size_t i = 2; i < lengths.size(); i += 2)
            if (lengths[i + 1] != lengths[1]) return false;
        return !lengths.empty() && tables.offsets.empty();
    }
    /// A time of presentation as the library makes milliseconds of it.
    uint32_t told_ms(uint32_t ticks) const
    {
        return static_cast<uint32_t>(static_cast<int64_t>(ms(ticks)));
    }
};

using Plans = std::array<Plan, 2>;  // of video and audio

/// The samples of a track, with the number of each.
class NumberedWalk {
public:
    explicit NumberedWalk(const Plan &plan)
        : m_plan(plan)
        , m_walk(plan.tables)
    {
    }
    bool next()
    {
        m_f_more = m_f_more && m_walk.next();
        if (!m_f_more) return false;
        const uint64_t least = m_walk.number() == 1 ? 0 : m_number + 1;
        m_number = least;
        if (!m_plan.f_even) return true;
        const double time = m_plan.ms(sample().time) + m_plan.start;
        m_number = std::max(least, static_cast<uint64_t>(time / m_plan.interval));
        return true;
    }
    /// Goes on to the first sample that isn't before a time, ms. False: there is none.
    bool go_to(double time)
    {
        while (m_f_more && (m_walk.number() == 0 || this->time() < time))
            next();
        return m_f_more;
    }
    const Sample &sample() const { return m_walk.sample(); }
    uint64_t number() const { return m_number; }
    double time() const { return static_cast<double>(m_number) * m_plan.interval; }
    bool is_whole() const { return m_walk.is_whole(); }

private:
    const Plan &m_plan;
    SampleWalk m_walk;
    uint64_t m_number = 0;
    bool m_f_more = true;
};

bool take_tracks(const Outline &outline, const Selection &selection, Plans &plans);
bool is_uneven(const Plans &plans);
bool choose_interval(Plan &plan);
double most_lag(const Plan &plan, double interval);
bool count_numbers(Plan &plan, const Plans &plans, uint64_t file_size);
bool set_duration(Plan &plan);
TableWriter make_tables(const Plan &plan, const Plan &other);
bool write_track(BoxWriter &boxes, Reader &reader, const Plan &plan, TableWriter &tables,
                 TablePlace &places);

}  // namespace

std::optional<EvenIndex> make_even_index(ByteSource &source, const Outline &outline,
                                         const Selection &selection)
{
    Plans plans;
    if (!take_tracks(outline, selection, plans) || !is_uneven(plans)) return {};
    Reader reader(source);
    size_t words = MOST_TABLE_WORDS;
    for (Plan &plan : plans) {
        std::optional<SampleTables> tables = load_tables(reader, plan.track->mp4, words);
        if (!tables) return {};
        plan.tables = std::move(*tables);
    }
    for (Plan &plan : plans)
        if (!choose_interval(plan)) return {};
    for (Plan &plan : plans)
        if (!count_numbers(plan, plans, outline.size) || !set_duration(plan)) return {};

    EvenIndex index;
    index.start_apart = std::max(plans[VIDEO].start, plans[AUDIO].start);
    BoxWriter boxes(index.head);
    boxes.open("ftyp");
    boxes.u32(outline::box_type("isom"));
    boxes.u32(0);  // minor_version
    boxes.close();
    boxes.open("moov");
    std::array<TablePlace, 2> places;
    for (size_t i = 0; i < plans.size(); ++i) {
        const Plan &plan = plans[i];
        index.filler_times[i] = plan.filler_time * TICKS_PER_MS;
        TableWriter tables = make_tables(plan, plans[1 - i]);
        if (i == VIDEO) {
            for (const uint32_t key : tables.keys())
                index.keys.push_back(key - 1);
            index.interval = plan.told_interval;
        }
        if (!write_track(boxes, reader, plan, tables, places[i])) return {};
    }
    boxes.close();
    boxes.u32(static_cast<uint32_t>(std::min<uint64_t>(outline.size + 8, UINT32_MAX)));
    boxes.u32(outline::box_type("mdat"));
    if (outline.size + boxes.size() > POSITIONS_END) return {};
    for (const TablePlace &place : places)
        for (auto at = static_cast<size_t>(place.begin); at < place.end; at += 4)
            boxes.put(at, boxes.number(at) + static_cast<uint32_t>(boxes.size()));
    return index;
}

namespace {

// The two tracks, if both are taken of a file that is whole.
bool take_tracks(const Outline &outline, const Selection &selection, Plans &plans)
{
    const Mp4Outline &mp4 = outline.mp4;
    if (outline.container != Container::MP4 || outline.f_partial || outline.size == 0) return false;
    if (!selection.refusal.empty() || mp4.f_moov_cut || mp4.f_fragmented) return false;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const std::optional<size_t> index = selection.taken(outline, kind);
        if (!index) return false;
        Plan &plan = plans[kind == TrackKind::VIDEO ? VIDEO : AUDIO];
        plan.track = &outline.tracks[*index];
        // When its first sample is decoded: a picture may be shown later, as its edit list then takes into account.
        const Mp4Details &track = plan.track->mp4;
        if (track.end.value_or(UINT64_MAX) > outline.size) return false;
        // The library puts the parameter sets into its first frame of video, which may be a filler.
        if (plan.track->config.size() >= Outline::MOST_CONFIG) return false;
        plan.start = static_cast<double>(edited_offset(track, mp4.timescale)) / TICKS_PER_MS;
    }
    const double first = std::min(plans[VIDEO].start, plans[AUDIO].start);
    for (Plan &plan : plans)
        plan.start -= first;
    return true;
}

// Whether what the library takes for times brings the tracks far from each other.
bool is_uneven(const Plans &plans)
{
    const Plan &video = plans[VIDEO], &audio = plans[AUDIO];
    return std::max(video.most_off() - audio.least_off(), audio.most_off() - video.least_off()) >
           MOST_APART_MS;
}

// Without fillers the library counts as it does for the file itself.
bool choose_interval(Plan &plan)
{
    const Mp4Details &mp4 = plan.track->mp4;
    plan.filler_time = plan.told_ms(FILLER_TICKS);
    plan.f_even = plan.most_off() > MOST_OFF || plan.least_off() < -MOST_OFF;
    if (!plan.f_even) {
        if (plan.is_constant()) plan.interval = plan.tables.lengths[1] * (1000.0 / mp4.timescale);
        if (plan.interval == 0) plan.interval = mean_interval(mp4);
        plan.told_interval = plan.interval;
        plan.duration = static_cast<uint32_t>(mp4.duration);
        return mp4.duration <= UINT32_MAX;
    }
    // Halving the range of rates as often as this comes within 6 % of the best one.
    constexpr int STEPS = 12;
    double low = 1 / MOST_OFF, high = 1 / SHORTEST_INTERVAL;
    if (most_lag(plan, 1 / high) > MOST_OFF) return false;
    for (int i = 0; i < STEPS; ++i) {
        const double middle = (low + high) / 2;
        (most_lag(plan, 1 / middle) > MOST_OFF ? low : high) = middle;
    }
    plan.interval = 1 / high;
    return true;
}

// How far numbers come behind the times of their samples where these follow faster than that; ms.
double most_lag(const Plan &plan, double interval)
{
    const std::vector<uint32_t> &lengths = plan.tables.lengths;
    double lag = 0, most = 0;
    for (size_t i = 0; i < lengths.size(); i += 2) {
        lag = std::max(0.0, lag + lengths[i] * (interval - plan.ms(lengths[i + 1])));
        most = std::max(most, lag);
    }
    return most;
}

// False also where a frame has a time by which it would be taken for a filler. Hosts are told times modulo 2^32 of 90
// ticks in a millisecond.
bool count_numbers(Plan &plan, const Plans &plans, uint64_t file_size)
{
    const uint64_t most = plan.f_even
                              ? std::min(MOST_NUMBERS, FEW_NUMBERS + file_size / BYTES_PER_NUMBER)
                              : MOST_TABLE_WORDS;
    const bool f_counted = !plan.f_even && plan.is_constant();  // not by a table of times
    NumberedWalk walk(plan);
    while (walk.next()) {
        const Sample &sample = walk.sample();
        if (sample.time + sample.length >= FILLER_TICKS) return false;
        if (sample.place + sample.size > file_size) return false;
        if (walk.number() >= most) return false;
        const uint32_t shown = static_cast<uint32_t>(sample.time) + sample.offset;
        const uint32_t told = f_counted ? static_cast<uint32_t>(static_cast<uint64_t>(walk.time()))
                                        : plan.told_ms(shown);
        for (const Plan &other : plans)
            if (told * TICKS_PER_MS == other.filler_time * TICKS_PER_MS) return false;
    }
    plan.numbers = walk.number() + 1;
    return walk.is_whole();
}

// So that the library counts by the interval.
bool set_duration(Plan &plan)
{
    if (!plan.f_even) return true;
    const uint64_t scale = plan.track->mp4.timescale;
    const double exact = static_cast<double>(plan.numbers) * plan.interval;
    const uint64_t ticks = (static_cast<uint64_t>(exact) * scale + 999) / 1000;
    const uint64_t told_ms = ticks * 1000 / scale;
    const auto told = static_cast<double>(told_ms);
    plan.duration = static_cast<uint32_t>(ticks);
    plan.told_interval = told / static_cast<double>(plan.numbers);
    return ticks <= UINT32_MAX && told > 0 && told - exact < MOST_OFF;
}

// A filler lies where the other track is read at its time: the library goes there for it.
TableWriter make_tables(const Plan &plan, const Plan &other)
{
    TableWriter tables(plan.numbers);
    NumberedWalk walk(plan), beside(other);
    while (walk.next()) {
        const Sample &sample = walk.sample();
        Sample filler;
        filler.offset = FILLER_TICKS - static_cast<uint32_t>(sample.time);
        while (tables.samples() < walk.number()) {
            const double time = static_cast<double>(tables.samples()) * plan.interval;
            filler.place = beside.go_to(time) ? beside.sample().place : sample.place;
            tables.add(filler);
        }
        tables.add(sample);
    }
    return tables;
}

bool write_track(BoxWriter &boxes, Reader &reader, const Plan &plan, TableWriter &tables,
                 TablePlace &places)
{
    const Mp4Details &mp4 = plan.track->mp4;
    if (Stretch(reader, mp4.mdhd.begin, mp4.mdhd.end).u8() != 0) return false;
    if (tables.words() * 4 + boxes.size() > MOST_TABLE_WORDS * 4) return false;
    boxes.reserve(tables.words() * 4 + MOST_HEADERS);
    boxes.open("trak");
    bool f_copied = boxes.copy("tkhd", reader, mp4.tkhd);
    boxes.open("mdia");
    boxes.open("mdhd");
    for (const uint32_t number : {0u, 0u, 0u, mp4.timescale, plan.duration, 0u})
        boxes.u32(number);
    boxes.close();
    f_copied = f_copied && boxes.copy("hdlr", reader, mp4.hdlr);
    boxes.open("minf");
    boxes.open("stbl");
    f_copied = f_copied && boxes.copy("stsd", reader, mp4.stsd);
    const bool f_keys = plan.f_even || !plan.tables.f_all_keys;
    places = tables.write(boxes, plan.f_even || !plan.tables.offsets.empty(), f_keys);
    for (int i = 0; i < 4; ++i)
        boxes.close();
    return f_copied;
}

}  // namespace
