// Where a film can be entered, and whether its clusters are whole.

#include <gtest/gtest.h>

#include "cluster_walk.h"
#include "memory_source.h"
#include "mkv_builder.h"
#include "mp4_builder.h"
#include "sync_point.h"

namespace {

TEST(ClusterWalk, FindsTheEndAndWhatIsWrong)
{
    const std::string head = "t1['V_MPEG4/ISO/AVC'] t2['A_AC3'] ";
    const Bytes whole = MkvFile(head + "c0 v0(65) a0=01 v40(41) c80 v0(65) k").build();
    const Bytes open = MkvFile(head + ". =1F43B675.01FFFFFFFFFFFFFF.E7[00] v0(65) v40(41) "
                                      "=1F43B675.01FFFFFFFFFFFFFF.E7[50] v0(65)")
                           .build();
    const struct {
        const char *name;
        Bytes file;
        bool f_whole, f_damaged, f_cut, f_parted;
        int64_t last;
    } rows[] = {
        {"whole", whole, true, false, false, false, 80},
        {"no sizes", open, true, false, false, false, 80},
        {"cut in a cluster", Bytes(whole.begin(), whole.end() - 16), false, false, true, false, 40},
        {"no cluster where one is due", MkvFile(head + "c0 v0(65) . =AABB c80 v0(65)").build(),
         false, true, false, false, 0},
        {"no child", MkvFile(head + "c0 v0(65) =EF80 v40(41)").build(), false, true, false, false,
         0},
        {"between clusters", MkvFile(head + "c0 v0(65) . =EC82.0000 c80 v0(65)").build(), false,
         false, false, true, 80},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Memory memory(row.file);
        const Outline outline = read_outline(memory);
        const ClusterWalk walk = walk_clusters(memory, outline);
        EXPECT_EQ(walk.f_whole, row.f_whole);
        EXPECT_EQ(walk.damaged_at.has_value(), row.f_damaged);
        EXPECT_EQ(walk.cut_in.has_value(), row.f_cut);
        EXPECT_EQ(walk.parted_at.has_value(), row.f_parted);
        ASSERT_EQ(walk.tracks.count(1), 1u);
        EXPECT_EQ(walk.tracks.at(1).last, row.last);
    }
}

// Pictures of 40 ms; each second one is independent.
TEST(SyncPoint, IsTheLastKeyPictureBefore)
{
    Mp4Track video = Mp4Track::video();
    for (size_t i = 0; i < 8; ++i)
        video.sample({1});
    video.stss = {1, 3, 5, 7};
    video.put["ctts"] = table_box("ctts", 1, {8, 80});
    const Bytes mp4 = Mp4File().add(video).build();
    const std::string tracks = "t1['V_MPEG4/ISO/AVC'] ";
    const std::string blocks = "C0 v0(65) C80 v0(65) C160 v0(65) ";
    const Bytes cues = MkvFile("h0 " + tracks + blocks + "k").build();
    // SimpleBlocks with the flag of a key picture.
    const std::string key = "=A3[81.0000.80.65] ";
    const Bytes bare = MkvFile(tracks + "c0 " + key + "c80 " + key + "v40(41) c160 " + key).build();
    const struct {
        const char *name;
        Bytes file;
        uint32_t time;
        int64_t ask, from;  // ask -1: from the start
    } rows[] = {
        {"mp4", mp4, 200, 80, 159},           {"mp4, between", mp4, 235, 80, 159},
        {"mp4, the end", mp4, 900, 240, 319}, {"mp4, before the first", mp4, 10, -1, 79},
        {"cues", cues, 100, 80, 80},          {"the last cue", cues, 160, 80, 160},
        {"no cues", bare, 150, -1, 80},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Bytes file = row.file;
        Memory memory(file);
        Outline outline = read_outline(memory);
        for (Cue &cue : outline.matroska.cues)
            cue.track = 1;
        const auto point =
            find_sync_point(memory, outline, select_tracks(outline), row.time, false, nullptr);
        ASSERT_TRUE(point.has_value());
        EXPECT_EQ(point->ask_ms ? static_cast<int64_t>(*point->ask_ms) : -1, row.ask);
        EXPECT_EQ(point->from_ms, row.from);
    }
    const auto keys = [](Bytes file) {
        Memory memory(file);
        const Outline outline = read_outline(memory);
        std::vector<int64_t> times;
        EXPECT_TRUE(list_key_pictures(memory, outline, select_tracks(outline),
                                      [&](int64_t time_ms) { times.push_back(time_ms); }));
        return times;
    };
    EXPECT_EQ(keys(mp4), (std::vector<int64_t>{80, 160, 240, 320}));
    EXPECT_EQ(keys(bare), (std::vector<int64_t>{0, 80, 160}));
}

// The library counts samples by the mean interval of their track.
TEST(SyncPoint, IsEarlyEnoughForTheAudio)
{
    // Pictures of 40 ms, then of 120 ms; 80 ms is the mean.
    Mp4Track video = Mp4Track::video();
    video.samples.assign(8, {1});
    video.stss = {1, 3, 5, 7};
    video.put["stts"] = table_box("stts", 2, {4, 40, 4, 120});
    video.duration = 640;
    Mp4Track shown_later = video;
    shown_later.put["ctts"] = table_box("ctts", 1, {8, 2000});
    Mp4Track audio = Mp4Track::audio();
    audio.samples.assign(40, {1});
    audio.time_scale = 1000;
    audio.delta = 20;
    Mp4Track short_audio = audio, gap = audio;
    short_audio.samples.resize(2);
    // At 0, 20, 40, 140, 160...
    gap.samples.resize(8);
    gap.put["stts"] = table_box("stts", 3, {2, 20, 1, 100, 5, 20});
    gap.duration = 240;
    EvenIndex index;
    index.keys = {0, 10, 30, 60};
    index.interval = 40;
    const struct {
        const char *name;
        Bytes file;
        const EvenIndex *index;
        uint32_t time;
        int64_t ask, from;  // ask -1: from the start
    } rows[] = {
        {"the key picture before", Mp4File().add(video).add(audio).build(), nullptr, 200, 160, 159},
        {"none before", Mp4File().add(video).add(audio).build(), nullptr, 90, -1, 79},
        {"no audio there", Mp4File().add(video).add(short_audio).build(), nullptr, 200, 320, 159},
        {"index", Mp4File().add(shown_later).add(audio).build(), &index, 2500, 1200, 2399},
        {"index, early enough", Mp4File().add(shown_later).add(audio).build(), &index, 2200, 1200,
         2159},
        {"gap", Mp4File().add(gap).build(), nullptr, 185, 179, 185},
        {"audio alone", Mp4File().add(audio).build(), nullptr, 185, 185, 185},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Bytes file = row.file;
        Memory memory(file);
        const Outline outline = read_outline(memory);
        const auto point =
            find_sync_point(memory, outline, select_tracks(outline), row.time, false, row.index);
        ASSERT_TRUE(point.has_value());
        EXPECT_EQ(point->ask_ms ? static_cast<int64_t>(*point->ask_ms) : -1, row.ask);
        EXPECT_EQ(point->from_ms, row.from);
    }
}

}  // namespace
