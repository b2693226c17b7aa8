// MP4: by the sample tables. The library goes to key samples by itself.

#include <algorithm>
#include <array>

#include "io/message.h"
#include "sample_tables.h"
#include "sample_walk.h"
#include "stream/even_source.h"
#include "stream/source_bytes.h"
#include "survey.h"
#include "ts_packet.h"
#include "ts_time.h"

namespace {

// Pictures before a segment that the stage has to see so that it goes on with the times of decoding: their depth
// of reordering twice.
constexpr uint64_t PICTURES_BEFORE = 34;

// Between frames the clock has packets of its own: so often, unless it jumps.
constexpr int64_t CLOCK_STEP = 40 * TICKS_PER_MS, CLOCK_JUMP = 10 * TICKS_PER_SECOND;

/// The key samples that may be sought to for those that come.
class Approach {
public:
    /// Adds a key sample. The result is the library's number of the last one before it that is early enough; 0: the
    /// begin.
    uint64_t add(const KeySample &key)
    {
        const auto is_early = [&](const Key &one) {
            return one.sample + PICTURES_BEFORE <= key.sample;
        };
        // Those that are too early for it and all later ones go.
        while (m_end - m_begin > 1 && is_early(at(m_begin + 1)))
            ++m_begin;
        const bool f_early = m_begin != m_end && is_early(at(m_begin));
        const uint64_t number = f_early ? at(m_begin).number : 0;
        at(m_end++) = {key.sample, key.number};
        return number;
    }

private:
    struct Key {
        uint64_t sample = 0, number = 0;
    };
    // One that is early enough, those that aren't, and a new one.
    static constexpr size_t MOST_KEYS = 64;
    static_assert(MOST_KEYS >= 1 + PICTURES_BEFORE + 1, "they go round");

    Key &at(size_t number) { return m_keys[number % MOST_KEYS]; }

    std::array<Key, MOST_KEYS> m_keys;
    size_t m_begin = 0, m_end = 0;  // all that ever came are counted
};

int64_t ticks_of(double seconds)
{
    constexpr double MOST = 1e9;
    const auto half_ticks = static_cast<int64_t>(std::min(seconds, MOST) * TICKS_PER_SECOND * 2);
    return (half_ticks + 1) / 2;
}

// A few bytes may state ages.
int64_t ticks_of_ms(int64_t ms)
{
    constexpr int64_t MOST = 1000000000000;
    return std::clamp(ms, -MOST, MOST) * TICKS_PER_MS;
}

// How many samples of a track are there; of a film that is cut only the first ones.
uint64_t samples_there(ByteSource &bytes, Film &film, const Mp4Details &mp4)
{
    if (mp4.end.value_or(0) <= bytes.size()) return mp4.samples;
    film.f_cut = true;
    return samples_within(bytes, mp4, bytes.size());
}

// Where a track ends that begins at a time of the film, or where the file is cut.
int64_t end_of(ByteSource &bytes, Film &film, const Mp4Details &mp4, int64_t begin)
{
    const uint64_t ticks = mp4.ticks.value_or(0);
    double seconds = static_cast<double>(ticks != 0 ? ticks : mp4.duration) / mp4.timescale;
    const uint64_t there = samples_there(bytes, film, mp4);
    if (mp4.samples != 0) seconds *= static_cast<double>(there) / static_cast<double>(mp4.samples);
    return begin + ticks_of(seconds);
}

// Where the samples end that were walked over.
int64_t end_of(const KeySamples &samples, const Film &film)
{
    return film_time(film, ticks_of(samples.end()), TrackKind::VIDEO);
}

/// How much of the audio comes before a time: a part of the whole, or, where the rate varies or there are gaps, by its
/// samples. The clock then has packets of its own.
class AudioBefore {
public:
    AudioBefore(ByteSource &source, const Film &film, int64_t end, bool f_by_samples)
        : m_film(film)
        , m_audio(taken_track(film, TrackKind::AUDIO))
        , m_end(end)
    {
        if (m_audio == nullptr || !f_by_samples) return;
        Reader reader(source);
        size_t words = MOST_TABLE_WORDS;
        m_tables = load_tables(reader, m_audio->mp4, words);
        if (m_tables) m_walk.emplace(*m_tables);
    }
    AudioBefore(const AudioBefore &) = delete;
    AudioBefore &operator=(const AudioBefore &) = delete;

    /// As it is served; ask for times in rising order, ticks of 90 kHz since the film's begin. Before that there is none.
    uint64_t bytes_at(int64_t time)
    {
        if (m_audio == nullptr || m_end <= 0 || time <= 0) return 0;
        const Mp4Details &mp4 = m_audio->mp4;
        if (!m_walk) {
            const double part = static_cast<double>(time) / static_cast<double>(m_end);
            constexpr double MOST = 1e15;
            const uint64_t whole = served_bytes(mp4.bytes.value_or(0), mp4.samples);
            return static_cast<uint64_t>(std::min(part * static_cast<double>(whole), MOST));
        }
        while (m_f_more && m_time < time) {
            m_bytes += m_walk->sample().size;
            m_f_more = m_walk->next();
            const double seconds = static_cast<double>(m_walk->sample().time) / mp4.timescale;
            m_time = film_time(m_film, ticks_of(seconds), TrackKind::AUDIO);
        }
        const auto clocks = static_cast<uint64_t>(time / CLOCK_STEP);
        return served_bytes(m_bytes, m_walk->number()) + clocks * TS_PACKET_SIZE;
    }

private:
    const Film &m_film;
    const Track *const m_audio;
    const int64_t m_end;
    std::optional<SampleTables> m_tables;
    std::optional<SampleWalk> m_walk;
    bool m_f_more = true;
    int64_t m_time = INT64_MIN;
    uint64_t m_bytes = 0;  // of the samples before the walk's
};

// Makes the index first, as segments are read by it.
int64_t look(Source &source, Film &film)
{
    std::optional<EvenIndex> &index = film.file.even_index;
    {
        SourceBytes bytes(source);
        index = make_even_index(bytes, film.file.outline, film.file.selection);
    }
    if (!index) return look_at_begin(source, film, 0, 0);
    EvenSource even_source(source, *index);
    return look_at_begin(even_source, film, 0, 0);
}

// end: about, of video and audio; audio_end: exactly.
void plan_by_keys(Source &source, Film &film, int64_t first, int64_t end, int64_t audio_end)
{
    const Track &video = *taken_track(film, TrackKind::VIDEO);
    const EvenIndex *const even_index = film.file.even_index ? &*film.file.even_index : nullptr;
    // Before a key picture come tables and parameter sets.
    constexpr uint64_t EACH_KEY = 3 * TS_PACKET_SIZE;
    uint64_t keys = 0;
    SourceBytes bytes(source);
    AudioBefore audio(bytes, film, end, even_index != nullptr);
    KeySamples samples(bytes, video.mp4, KeySamples::Sizes::READ, even_index);
    Plan plan(film.segments, {0, 0, 0});
    Approach approach;
    uint64_t pictures = video.mp4.samples, picture_bytes = video.mp4.bytes.value_or(0);
    const bool f_read = samples.walk([&](const KeySample &key) {
        const int64_t time = film_time(film, ticks_of_ms(key.shown_ms), TrackKind::VIDEO);
        film.f_independent = film.f_independent && !key.f_leading;
        const uint64_t from = approach.add(key);
        // A few bytes may state millions of key samples with few times. The plan takes one of each.
        if (time > std::max(first, plan.latest()) && time < end) {
            const uint64_t place = from == 0 ? 0 : samples.time_to_ask(from).value_or(0);
            plan.add(
                {time, place,
                 served_bytes(key.bytes, key.sample) + keys * EACH_KEY + audio.bytes_at(time)});
        }
        ++keys;
        if (film.f_cut && time >= end) {
            pictures = key.sample;
            picture_bytes = key.bytes;
        }
        return !plan.is_full() && time < end;
    });
    if (!f_read) throw NotDone(source.path(), "its sample tables can't be read");
    if (!film.f_cut) end = std::max(audio_end, end_of(samples, film));
    plan.end(end, served_bytes(picture_bytes, pictures) + keys * EACH_KEY + audio.bytes_at(end));
}

// Audio alone is cut at its frames: so each segment has one, however far they are apart. The times of all of them tell
// on which grid those are where a segment's run begins.
void plan_by_frames(Source &source, Film &film)
{
    // Of which the stage makes its clock.
    constexpr size_t FRAMES_BEFORE = 48;
    constexpr double SHORTEST_INTERVAL = 1;  // ms; below, the library can't be asked for each frame
    Mp4Details mp4 = taken_track(film, TrackKind::AUDIO)->mp4;
    mp4.sync_samples.reset();  // it goes to any sample
    SourceBytes bytes(source);
    const uint64_t there = samples_there(bytes, film, mp4);
    KeySamples samples(bytes, mp4, KeySamples::Sizes::READ);
    FrameTimes times(film);
    std::array<int64_t, FRAMES_BEFORE + 1> laters = {};
    const auto later_of = [&](uint64_t frame) -> int64_t & {
        return laters[static_cast<size_t>(frame % laters.size())];
    };
    Plan plan(film.segments, {0, 0, 0});
    int64_t clocks = 0;
    const auto served = [&](uint64_t bytes_before, uint64_t frames_before) {
        return served_bytes(bytes_before, frames_before) +
               static_cast<uint64_t>(clocks) * TS_PACKET_SIZE;
    };
    uint64_t frames = mp4.samples, frame_bytes = mp4.bytes.value_or(0);
    const bool f_read = samples.walk([&](const KeySample &frame) {
        if (frame.sample >= there) {
            frames = frame.sample;
            frame_bytes = frame.bytes;
            return false;
        }
        const int64_t before = times.time();
        times.add(ticks_of_ms(frame.shown_ms));
        clocks += std::clamp<int64_t>(times.time() - before, 0, CLOCK_JUMP) / CLOCK_STEP;
        later_of(frame.sample) = times.later();
        if (times.time() < plan.due()) return true;
        const uint64_t first = frame.sample - std::min<uint64_t>(frame.sample, FRAMES_BEFORE);
        const bool f_ask = samples.interval() >= SHORTEST_INTERVAL;
        const uint64_t place = f_ask ? samples.time_to_ask(first).value_or(0) : 0;
        plan.cut({times.time(), place, served(frame.bytes, frame.sample),
                  place == 0 ? 0 : later_of(first)});
        return !plan.is_full();
    });
    if (!f_read) throw NotDone(source.path(), "its sample tables can't be read");
    plan.end(times.end(), served(frame_bytes, frames));
}

}  // namespace

void survey_mp4(Source &source, Film &film)
{
    const int64_t first = look(source, film);
    const Track *const video = taken_track(film, TrackKind::VIDEO);
    const Track *const audio = taken_track(film, TrackKind::AUDIO);
    if (video == nullptr) return plan_by_frames(source, film);
    int64_t end = 0, audio_end = 0;
    {
        SourceBytes bytes(source);
        end = end_of(bytes, film, video->mp4, first);
        if (audio != nullptr)
            audio_end = end_of(bytes, film, audio->mp4, film_time(film, 0, TrackKind::AUDIO));
    }
    plan_by_keys(source, film, first, std::max(end, audio_end), audio_end);
}
