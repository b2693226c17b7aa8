// MP4 behind an index whose fillers make the library deliver frames in order of time.

#include "even_index.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "memory_source.h"
#include "mp4_movie.h"
#include "sample_tables.h"

namespace {

std::optional<EvenIndex> index_of(const Bytes &file)
{
    Memory memory(file);
    const Outline outline = read_outline(memory);
    return make_even_index(memory, outline, select_tracks(outline));
}

// An edit list: so many ms of nothing, then the track from one of its times on.
Bytes edits(uint32_t empty, uint32_t from)
{
    return box("edts", table_box("elst", 2, {empty, 0xFFFFFFFF, 0x10000, 5000, from, 0x10000}));
}

/// Ten pictures a second in the first second, and four more, a second apart; audio each 200 ms.
struct Film {
    Mp4Track video = Mp4Track::video(), audio = Mp4Track::audio();
    int64_t video_start = 0, audio_start = 0;  // ms, by edit lists

    Film()
    {
        for (uint8_t i = 1; i <= 14; ++i)
            video.sample(nal(Bytes(1 + i % 3, i)));
        for (uint8_t i = 1; i <= 25; ++i)
            audio.sample(Bytes(2 + i % 2, i));
        rates({10, 100, 4, 1000});
        video.stss = {1, 6, 11, 13};
        video.chunks = audio.chunks = {3, 3, 3};
        audio.time_scale = 1000;
        audio.delta = 200;
    }
    void rates(const std::vector<size_t> &runs)
    {
        video.duration = 0;
        for (size_t i = 0; i < runs.size(); i += 2)
            video.duration += static_cast<int64_t>(runs[i] * runs[i + 1]);
        video.put["stts"] = table_box("stts", runs.size() / 2, runs);
    }
    void delay(Mp4Track &track, uint32_t ms)
    {
        (&track == &video ? video_start : audio_start) = ms;
        track.order["trak"] = {"tkhd", "edts", "mdia"};
        track.put["edts"] = edits(ms, 0);
    }
    Bytes build() const { return Mp4File().add(video).add(audio).build(); }
};

/// What comes out of the library, without fillers.
std::vector<Frame> frames_of(const EvenIndex *index)
{
    constexpr uint64_t TICKS_PER_MS = 90;
    std::vector<Frame> frames = Demuxer::frames();
    const auto is_filler = [&](const Frame &frame) {
        return index != nullptr &&
               index->is_filler(static_cast<uint32_t>(frame.time_ms * TICKS_PER_MS));
    };
    frames.erase(std::remove_if(frames.begin(), frames.end(), is_filler), frames.end());
    return frames;
}

// How far a frame comes behind those of the other track; ms.
int64_t apart(const std::vector<Frame> &frames, const Film &film)
{
    int64_t reached[2] = {INT64_MIN / 2, INT64_MIN / 2}, most = 0;
    for (const Frame &frame : frames) {
        const bool f_video = frame.type == GOLT_FT_VIDEO;
        const int64_t time =
            static_cast<int64_t>(frame.time_ms) + (f_video ? film.video_start : film.audio_start);
        most = std::max(most, reached[!f_video] - time);
        reached[f_video] = std::max(reached[f_video], time);
    }
    return most;
}

// "1 2 3": the last byte of each frame of a kind, which in a film is its number, and "@" and the time.
std::string list_of(const std::vector<Frame> &frames, GOLT_frametypes_t type)
{
    std::string out;
    for (const Frame &frame : frames)
        if (frame.type == type)
            out += " " + std::to_string(frame.data.back()) + "@" + std::to_string(frame.time_ms);
    return out;
}

TEST(EvenIndex, PutsFramesInOrderOfTime)
{
    const struct {
        const char *name;
        void (*change)(Film &film);
    } rows[] = {
        {"fast, then slow", [](Film &) {}},
        {"slow, then fast",
         [](Film &film) {
             film.rates({4, 1000, 10, 100});
         }},
        {"reordered",
         [](Film &film) {
             film.video.put["ctts"] = table_box("ctts", 2, {3, 80, 11, 0});
         }},
        {"before its time of decoding",
         [](Film &film) {
             film.video.put["ctts"] = table_box("ctts", 2, {5, 0, 9, 0xFFFFFFCE});
         }},
        {"pictures at one time",
         [](Film &film) {
             film.rates({5, 0, 9, 500});
         }},
        {"late audio", [](Film &film) { film.delay(film.audio, 3000); }},
        {"late audio, runs of one length",
         [](Film &film) {
             film.rates({5, 300, 9, 300});
             film.delay(film.audio, 3000);
         }},
        {"late video", [](Film &film) { film.delay(film.video, 3000); }},
        {"both late",
         [](Film &film) { film.delay(film.video, 3000), film.delay(film.audio, 2000); }},
        {"a gap in the audio",
         [](Film &film) {
             film.audio.put["stts"] = table_box("stts", 3, {5, 200, 1, 3000, 19, 200});
             film.audio.duration = 7800;
         }},
        {"without a duration", [](Film &film) { film.video.duration = 0; }},
        {"without sync samples", [](Film &film) { film.video.stss.clear(); }},
        {"samples of one size",
         [](Film &film) {
             film.audio.samples.clear();
             for (uint8_t i = 1; i <= 25; ++i)
                 film.audio.sample({0, i});
             film.audio.put["stsz"] = table_box("stsz", 2, {25});
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Film film;
        row.change(film);
        const Bytes file = film.build();
        std::vector<Frame> plain;
        {
            Demuxer demuxer(file);
            plain = frames_of(nullptr);
        }
        EXPECT_GT(apart(plain, film), 500);
        const std::optional<EvenIndex> index = index_of(file);
        ASSERT_TRUE(index.has_value());
        Demuxer demuxer(index->head + file);
        const std::vector<Frame> even = frames_of(&*index);
        EXPECT_LE(apart(even, film), 500);
        EXPECT_EQ(even.size(), 14u + 25u);
        for (const GOLT_frametypes_t type : {GOLT_FT_VIDEO, GOLT_FT_AUDIO})
            EXPECT_EQ(list_of(even, type), list_of(plain, type));
    }
}

TEST(EvenIndex, LeadsToKeySamples)
{
    Film film;
    const Bytes file = film.build();
    const std::optional<EvenIndex> index = index_of(file);
    ASSERT_TRUE(index.has_value());
    Demuxer demuxer(index->head + file);
    Memory memory(file);
    const Outline outline = read_outline(memory);
    KeySamples samples(memory, outline.tracks[0].mp4, KeySamples::Sizes::LEFT_OUT, &*index);
    std::vector<KeySample> keys;
    EXPECT_TRUE(samples.walk([&](const KeySample &key) {
        keys.push_back(key);
        return true;
    }));
    ASSERT_EQ(keys.size(), 4u);
    for (const KeySample &key : keys) {
        SCOPED_TRACE(key.sample);
        EXPECT_EQ(key.sample + 1, film.video.stss[static_cast<size_t>(&key - keys.data())]);
        Demuxer::seek(samples.time_to_ask(key.number).value());
        const std::vector<Frame> frames = frames_of(&*index);
        const std::string number = " " + std::to_string(key.sample + 1) + "@";
        EXPECT_EQ(list_of(frames, GOLT_FT_VIDEO).find(number), 0u);
        EXPECT_LE(apart(frames, film), 500);
        const auto sound = std::find_if(frames.begin(), frames.end(), [](const Frame &frame) {
            return frame.type == GOLT_FT_AUDIO;
        });
        ASSERT_NE(sound, frames.end());
        EXPECT_NEAR(static_cast<double>(sound->time_ms), static_cast<double>(key.shown_ms), 500);
    }
}

TEST(EvenIndex, LeavesOtherFilesAsTheyAre)
{
    const struct {
        const char *name;
        void (*change)(Film &film);
    } rows[] = {
        {"even",
         [](Film &film) {
             film.rates({14, 400});
         }},
        {"nearly even",
         [](Film &film) {
             film.rates({3, 300, 11, 400});
         }},
        {"both late",
         [](Film &film) {
             film.rates({14, 40}), film.delay(film.video, 900), film.delay(film.audio, 500);
         }},
        {"sizes missing",
         [](Film &film) {
             film.video.put["stsz"] = table_box("stsz", 0, {12, 8});
         }},
        {"durations missing",
         [](Film &film) {
             film.rates({10, 100, 3, 1000});
         }},
        {"sync samples that fall",
         [](Film &film) {
             film.video.stss = {1, 6, 5};
         }},
        {"a sync sample too many",
         [](Film &film) {
             film.video.stss = {1, 15};
         }},
        {"no samples in a chunk",
         [](Film &film) {
             film.video.put["stsc"] = table_box("stsc", 1, {1, 0, 1});
         }},
        {"chunk 2 first",
         [](Film &film) {
             film.video.put["stsc"] = table_box("stsc", 1, {2, 3, 1});
         }},
        {"samples without a place",
         [](Film &film) {
             film.video.put["stsc"] = table_box("stsc", 1, {1, 3, 1});
         }},
        {"after the file's end",
         [](Film &film) {
             film.video.put["stco"] = table_box("stco", 5, {1, 2, 3, 0x7FFFFFF0, 5});
         }},
        {"a time of fillers",
         [](Film &film) {
             film.video.put["ctts"] = table_box("ctts", 2, {1, 0xFFFFFFFF, 13, 0});
         }},
        {"a configuration that is cut", [](Film &film) { film.video.sps = {pattern(4200, 3)}; }},
        {"too long",
         [](Film &film) {
             film.rates({10, 100, 1, 0x40000000, 3, 1});
         }},
        {"too fast",
         [](Film &film) {
             film.video.samples.resize(300, nal({1}));
             film.rates({299, 0, 1, 5000});
         }},
        {"another clock",
         [](Film &film) {
             film.video.put["mdhd"] =
                 box("mdhd", be32(0x01000000) + Bytes(16) + be32(1000) + be32(0) + be32(5000));
         }},
        {"one track", [](Film &film) { film.audio.entry_type = "alac"; }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Film film;
        row.change(film);
        EXPECT_FALSE(index_of(film.build()).has_value());
    }
    const Bytes file = Film().build();
    EXPECT_TRUE(index_of(file).has_value());
    EXPECT_FALSE(index_of(Bytes(file.begin(), file.end() - 1)).has_value());
}

}  // namespace
