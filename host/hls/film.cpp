#include "film.h"

#include <algorithm>

#include <fmt/format.h>

#include "cutter.h"
#include "io/message.h"
#include "io/recognise.h"
#include "m2ts.h"
#include "segment_run.h"
#include "stream/even_source.h"
#include "stream/source_bytes.h"
#include "survey.h"
#include "ts_packet.h"

namespace {

std::string refusal_of(const Film &film, Source &source);
std::string why_unknown(Source &source);
void describe(Film &film);
void set_rates(Film &film);
std::string run_from(Source &source, const Film &film, size_t number, size_t from,
                     std::vector<uint8_t> &segment, bool &f_sure);

}  // namespace

size_t Film::memory() const
{
    size_t size = sizeof *this + codecs.size() + kinds.size() + refusal.size() +
                  segments.capacity() * sizeof(Segment) + file.tables.capacity();
    if (file.even_index)
        size += file.even_index->head.capacity() + file.even_index->keys.capacity() * 4;
    for (const Track &track : file.outline.tracks)
        size += sizeof track + track.config.capacity() + track.mp4.edits.capacity() * sizeof(Edit);
    return size;
}

Film survey_film(Source &source)
{
    Film film;
    try {
        {
            SourceBytes bytes(source);
            film.file.outline = read_outline(bytes);
        }
        film.file.selection = select_tracks(film.file.outline);
        film.refusal = refusal_of(film, source);
        if (!film.refusal.empty()) return film;
        switch (film.file.outline.container) {
        case Container::MP4: survey_mp4(source, film); break;
        case Container::MATROSKA: survey_matroska(source, film); break;
        case Container::MPEG_AUDIO: survey_mpeg_audio(source, film); break;
        case Container::TRANSPORT_STREAM: survey_m2ts(source, film); break;
        case Container::UNKNOWN: break;
        }
        if (!source.fault().empty()) film.refusal = source.fault();
    } catch (const NotDone &error) {
        const std::string text = error.what(), path = source.path() + ": ";
        film.refusal = text.compare(0, path.size(), path) == 0 ? text.substr(path.size()) : text;
    }
    MatroskaOutline &matroska = film.file.outline.matroska;
    matroska.cues = {};
    describe(film);
    set_rates(film);
    return film;
}

std::string make_segment(Source &source, const Film &film, size_t number,
                         std::vector<uint8_t> &segment)
{
    segment.clear();
    if (!film.refusal.empty()) return film.refusal;
    if (number >= film.segments.size()) return "there is no such segment";
    try {
        if (film.file.outline.container == Container::TRANSPORT_STREAM)
            return copy_m2ts_segment(source, film, number, segment);
        const std::optional<EvenIndex> &even_index = film.file.even_index;
        std::optional<EvenSource> even_source;
        if (even_index) even_source.emplace(source, *even_index);
        Source &read = even_source ? static_cast<Source &>(*even_source) : source;
        // Few pictures before it, as of a slide show: from farther back.
        constexpr size_t MOST_STEPS = 8;
        for (size_t step = 0;; step = step == 0 ? 1 : step * 2) {
            bool f_sure = false;
            const size_t from = number - std::min(number, step);
            std::string fault = run_from(read, film, number, from, segment, f_sure);
            if (!fault.empty()) return fault;
            if (f_sure || from == 0 || step == MOST_STEPS) break;
        }
        if (segment.empty()) return "nothing of it is in the file";
        align_counters(segment);
        return "";
    } catch (const NotDone &error) {
        return error.what();
    }
}

namespace {

std::string refusal_of(const Film &film, Source &source)
{
    const Outline &outline = film.file.outline;
    if (!source.fault().empty()) return source.fault();
    if (outline.container == Container::UNKNOWN) return why_unknown(source);
    if (!film.file.selection.refusal.empty()) return film.file.selection.refusal;
    if (!source.is_seekable() || source.size() == 0) return "its server doesn't send parts of it";
    if (outline.container == Container::TRANSPORT_STREAM) return "";
    constexpr uint64_t NS_PER_MS = 1000000;
    const bool f_video = taken_track(film, TrackKind::VIDEO) != nullptr;
    if (f_video && outline.container == Container::MATROSKA &&
        outline.matroska.timestamp_scale != NS_PER_MS)
        return "its times aren't in milliseconds";
    const bool f_any = f_video || taken_track(film, TrackKind::AUDIO) != nullptr;
    return f_any ? "" : "it has neither video nor audio";
}

// As the other commands name what they don't read.
std::string why_unknown(Source &source)
{
    uint8_t head[RECOGNISE_SIZE];
    SourceBytes bytes(source);
    const size_t size = bytes.read_at(0, head, 1, sizeof head);
    const std::string other = why_other_format(head, size);
    return other.empty() ? "its format isn't known" : other;
}

// The times of a frame of audio may differ a little from run to run. Halfway to the frame before there is none.
int64_t half_frame(const Film &film)
{
    const golt::AudioGrid &grid = film.file.audio_grid;
    const int64_t length = int64_t{grid.samples} * TICKS_PER_SECOND / std::max(grid.rate, 1u);
    return std::min<int64_t>(length, TICKS_PER_SECOND) / 2;
}

// Of a file of this size. A few bytes may state hours of pictures or frames that are a few seconds apart. Clock and tables
// have 34 MB in an hour, of which nobody needs more in one piece.
size_t largest_segment(uint64_t file_size)
{
    constexpr uint64_t CLOCK_SIZE = 24 * 1024 * 1024;
    const uint64_t most = std::min<uint64_t>(file_size, LARGEST_SEGMENT) * 4 + CLOCK_SIZE;
    return static_cast<size_t>(std::min<uint64_t>(most, LARGEST_SEGMENT));
}

// A run that begins where segment from does. f_sure: enough came before the segment for it to be as in a run from
// the film's begin.
std::string run_from(Source &source, const Film &film, size_t number, size_t from,
                     std::vector<uint8_t> &segment, bool &f_sure)
{
    constexpr uint64_t PICTURES_BEFORE = 34;
    const bool f_audio_file = film.file.outline.container == Container::MPEG_AUDIO;
    const Segment &wanted = film.segments[number];
    const bool f_last = number + 1 == film.segments.size();
    Cutter::Range range;
    range.f_video = taken_track(film, TrackKind::VIDEO) != nullptr;
    SegmentRun::Begin begin = {film.segments[from].place, source.size(), 0, 0};
    if (f_audio_file) {
        begin.later = wanted.start;
        if (!f_last) begin.to = film.segments[number + 1].place;
    } else {
        begin.time = time_in_file(film, film.segments[from].start,
                                  range.f_video ? TrackKind::VIDEO : TrackKind::AUDIO);
        const int64_t first = film.file.first_time - (range.f_video ? 0 : half_frame(film));
        if (number > 0) range.from = first + wanted.start;
        if (!f_last) range.to = first + wanted.end;
    }
    if (film.file.outline.container == Container::MATROSKA) {
        begin.later = film.segments[from].later;
        begin.time -= begin.later;
    } else {
        begin.grid_later = film.segments[from].later;
    }
    // Memory that isn't used costs nothing; memory that grows is there twice for a while. An index may state more than
    // there is.
    constexpr uint64_t MORE = 64 * 1024;
    const size_t most = largest_segment(source.size());
    segment.reserve(static_cast<size_t>(
        std::min({wanted.bytes, 2 * source.size(), uint64_t{most} - MORE}) + MORE));
    Cutter cutter(range, segment, most);
    SegmentRun run(source, film, begin, cutter);
    run.run();
    f_sure = f_audio_file || number == 0 ||
             cutter.units_before() >= (range.f_video ? PICTURES_BEFORE : 1);
    if (cutter.is_full()) return fmt::format("it has more than {} MiB", most / (1024 * 1024));
    if (!source.fault().empty()) return source.fault();
    return run.fault();
}

// Of H.264 by its decoder configuration (ISO/IEC 14496-15), of audio as RFC 6381 names it.
std::string video_codec(const Track &track)
{
    if (track.config.size() < 4) return "";
    return fmt::format("avc1.{:02x}{:02x}{:02x}", track.config[1], track.config[2],
                       track.config[3]);
}

std::string audio_codec(const Outline &outline, const std::string &title, const Track &track)
{
    constexpr uint32_t LC = 2, LAYER_1 = 32, LAYER_3 = 34;
    if (title == "AAC") {
        const std::optional<AudioConfig> config = parse_audio_config(track.config);
        return fmt::format("mp4a.40.{}", config ? config->object_type : LC);
    }
    if (title == "AC-3") return "ac-3";
    if (title == "E-AC-3") return "ec-3";
    const uint32_t layer =
        outline.container == Container::MPEG_AUDIO ? outline.mpeg_audio.layer : track.mp4.layer;
    return fmt::format("mp4a.40.{}", layer == 0 ? LAYER_3 : LAYER_1 + layer - 1);
}

std::string channels_text(uint32_t channels)
{
    switch (channels) {
    case 0: return "";
    case 1: return " mono";
    case 2: return " stereo";
    case 6: return " 5.1";
    case 8: return " 7.1";
    default: return fmt::format(" {} channels", channels);
    }
}

void describe(Film &film)
{
    const Outline &outline = film.file.outline;
    if (outline.container == Container::TRANSPORT_STREAM) return;
    if (const Track *const video = taken_track(film, TrackKind::VIDEO)) {
        film.f_video = true;
        film.codecs = video_codec(*video);
        film.kinds = codec_title(outline, *video);
        film.width = video->width;
        film.height = video->height;
        if (film.width != 0) film.kinds += fmt::format(" {}x{}", film.width, film.height);
        if (const auto rate = mean_frame_rate(*video))
            film.frame_rate = static_cast<double>(*rate) / 1000;
    }
    if (const Track *const audio = taken_track(film, TrackKind::AUDIO)) {
        const std::string title = codec_title(outline, *audio);
        film.codecs += (film.codecs.empty() ? "" : ",") + audio_codec(outline, title, *audio);
        film.kinds += (film.kinds.empty() ? "" : ", ") + title +
                      channels_text(audio_figures(outline, *audio).channels);
    }
}

/// Segments one after the other.
struct Stretch {
    uint64_t bytes = 0;
    int64_t length = 0;

    void add(const Segment &segment)
    {
        // Tables, the clock, and what is filled up so that counters fit together.
        constexpr uint64_t EACH = 6 * 1024;
        bytes += segment.bytes + EACH;
        length += segment.end - segment.start;
    }
    uint64_t bits_per_second() const
    {
        // The clock 25 times, and PAT and PMT half as often, each in a packet of its own.
        constexpr double BITS = 8, EACH_SECOND = 50 * TS_PACKET_SIZE, MOST = 1e15;
        const double bits = static_cast<double>(bytes) * BITS * TICKS_PER_SECOND /
                            static_cast<double>(std::max<int64_t>(length, 1));
        return static_cast<uint64_t>(std::min(bits + EACH_SECOND * BITS, MOST));
    }
};

// RFC 8216 4.3.4.2: the highest rate of segments one after the other that together last for half of the target duration
// up to one and a half of it.
void set_rates(Film &film)
{
    const std::vector<Segment> &segments = film.segments;
    const int64_t target = target_duration(film) * TICKS_PER_SECOND;
    Stretch all;
    for (size_t i = 0; i < segments.size(); ++i) {
        film.duration = std::max(film.duration, segments[i].end);
        all.add(segments[i]);
        // A target of hours, which no film has that plays, is not worth more work than this.
        constexpr size_t MOST = 500;
        Stretch some;
        for (size_t j = i; j < std::min(segments.size(), i + MOST); ++j) {
            some.add(segments[j]);
            if (some.length > target / 2 * 3) break;
            if (some.length >= target / 2)
                film.peak_bits = std::max(film.peak_bits, some.bits_per_second());
        }
    }
    if (segments.empty()) return;
    film.average_bits = all.bits_per_second();
    film.peak_bits = std::max(film.peak_bits, film.average_bits);
}

}  // namespace
