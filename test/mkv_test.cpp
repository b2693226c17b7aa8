#include "dmx_mkv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "host_double.h"
#include "mkv_builder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Bytes START = {0, 0, 0, 1};

class Demuxer {
public:
    explicit Demuxer(const MkvFile &file)
        : Demuxer(file.build())
    {
    }
    explicit Demuxer(const Bytes &file)
        : source(file)
    {
        EXPECT_TRUE(GOLT_DMX_MKVInit(Source::read_proc, Source::seek_proc, &source));
    }
    ~Demuxer() { GOLT_DMX_MKVDestroy(); }

    std::vector<uint64_t> times(size_t most = SIZE_MAX)
    {
        std::vector<uint64_t> out;
        for (const Frame &frame : read_frames(GOLT_DMX_MKVReadFrame, most))
            out.push_back(frame.time_ms);
        return out;
    }
    std::vector<Bytes> contents()
    {
        std::vector<Bytes> out;
        for (const Frame &frame : read_frames(GOLT_DMX_MKVReadFrame))
            out.push_back(frame.data);
        return out;
    }

    GOLT_streamInfo_t info()
    {
        GOLT_streamInfo_t out = {};
        EXPECT_TRUE(GOLT_DMX_MKVGetStreamInfo(&out));
        return out;
    }

    Source source;
};

const auto picture = [](const Bytes &payload) { return simple_block(1, 0, payload); };
const auto sound = [](const Bytes &payload) { return simple_block(2, 0, payload); };

// A picture of one NAL unit of one byte.
Bytes unit(uint8_t first_byte, int time = 0)
{
    return simple_block(1, time, length_unit({first_byte}));
}

Bytes laced_block(const std::vector<Bytes> &frames, Lacing kind)
{
    return element(0xA3, block(2, 0, frames, kind));
}

// What comes of one cluster's children.
std::vector<Bytes> frames_of(const Bytes &track, const std::vector<Bytes> &children)
{
    return Demuxer(MkvFile().track(track).cluster(0, children)).contents();
}

// Header scan

// Three clusters of a key frame and another frame, with a cue point for each.
MkvFile three_clusters()
{
    MkvFile file;
    file.track(H264_TRACK);
    for (const uint32_t time : {0u, 5000u, 10000u})
        file.cluster(time, {unit(0x65), unit(0x41, 40)}).cue(time, time / 5000);
    return file;
}

TEST(MkvHeader, FindsTheCuesWhereverTheyStand)
{
    // Place of the Cues, whether there is a SeekHead, how far it misses them, whether seeks work.
    const std::tuple<MkvFile::Place, bool, int64_t, bool> rows[] = {
        {MkvFile::behind, true, 0, true},         {MkvFile::behind, false, 0, false},
        {MkvFile::in_front, false, 0, true},      {MkvFile::in_front, true, 0, true},
        {MkvFile::nowhere, true, 1000, false},    {MkvFile::behind, true, int64_t{1} << 40, false},
        {MkvFile::behind, true, INT64_MIN, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        MkvFile file = three_clusters();
        bool can_seek = false;
        std::tie(file.cues_at, file.has_seek_head, file.cues_shift, can_seek) = row;
        Demuxer demuxer(file);
        EXPECT_THAT(demuxer.times(), ElementsAre(0, 40, 5000, 5040, 10000, 10040));
        EXPECT_EQ(GOLT_DMX_MKVSeekToTime(5000), can_seek);
        EXPECT_EQ(demuxer.times().size(), can_seek ? 4u : 0u);
    }
}

TEST(MkvHeader, PassesOverUnknownElementsEverywhere)
{
    MkvFile file;
    file.noise = element(0xEC, Bytes(9, 0xA3)) + element(0x4FFE, {1, 2, 3}, 8);
    const Bytes a_block = element(0xA1, block(1, 0, {length_unit({0x65})}));
    const Bytes group = element(0xA0, file.noise + a_block + number_element(0x9B, 40) + file.noise);
    file.track(track_entry(1, 1, "V_MPEG4/ISO/AVC", file.noise)).cluster(0, {group});
    file.cluster(5000, {group}).cue(0, 0).cue(5000, 1);
    testing::internal::CaptureStdout();
    EXPECT_THAT(Demuxer(file).times(), ElementsAre(0, 5000));
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const char *kind :
         {"MKV header ID: 0x0000", "SeekHead ID: 0x0000", "SeekHead child ID: 0x0000",
          "SegmentInfo ID: 0x0000", "Tracks  ID: 0x0000", "Track entry ID: 0x0000",
          "cluster ID: 0x0000", "Block ID: 0x0000", "cue ID:0x", "cue point ID: 0x0000",
          "cue track ID:0x"})
        EXPECT_THAT(printed, HasSubstr("error " + std::string(kind) + "4FFE\n"));
}

TEST(MkvHeader, ReadsDurationsOfBothWidths)
{
    const std::pair<const char *, uint32_t> rows[] = {
        {"473B8000", 48000},         {"3F000000", 0},         {"C0000000", 0}, {"7F800000", 0},
        {"40E7700000000000", 48000}, {"7FF8000000000000", 0}, {"0102", 0}};
    for (const auto &[digits, duration] : rows) {
        MkvFile file;
        file.duration = hex(digits);
        EXPECT_EQ(Demuxer(file).info().duration, duration) << digits;
    }
}

TEST(MkvHeader, KeepsTheLastOfTooManyCues)
{
    MkvFile file = three_clusters();
    for (uint64_t i = 3; i < 5000; ++i)
        file.cue(10000 + i, 2);
    Demuxer demuxer(file);
    EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(14999));
    EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(14998));
}

TEST(MkvHeader, EndsOnWhatIsNoMatroska)
{
    for (const Bytes &file :
         {Bytes(), Bytes(1 << 20), pattern(1 << 20, 7), MkvFile().track(H264_TRACK).build(),
          hex("1654AE6B 0FFFFFFFFF AE FE")}) {
        Demuxer demuxer(file);
        EXPECT_THAT(demuxer.times(), ElementsAre());
        EXPECT_LE(demuxer.source.reads, 2000);
    }
}

// Tracks

TEST(MkvTracks, TakesTheFirstOfAKnownKind)
{
    const Bytes sound_32000 =
        element(0xE1, element(0xB5, be32(0x46FA0000)) + number_element(0x9F, 2));
    const Bytes eac3 = track_entry(2, 2, "A_EAC3", sound_32000);
    const Bytes ac3 =
        track_entry(3, 2, "A_AC3", element(0xE1, element(0xB5, be(0x40E5888000000000, 8))));
    const Bytes sbr = track_entry(2, 2, "A_AAC/MPEG4/LC/SBR", sound_32000);
    const Bytes far = track_entry(0x103, 2, "A_MPEG/L3");
    const Bytes vp8 = track_entry(1, 1, "V_VP8");
    const Bytes filled = track_entry(3, 1, std::string(21, 'x') + "V_MPEG4/ISO/AVC");
    Bytes too_many;
    for (int i = 0; i < 99; ++i)
        too_many += AAC_TRACK;
    const size_t NONE = GOLT_CODEC_UNKNOWN;
    // Tracks: audio and video codec, channels, sample rate, and how many of three blocks come, one
    // each of the tracks 1, 2 and 3.
    const std::pair<Bytes, std::vector<size_t>> rows[] = {
        {H264_TRACK, {NONE, GOLT_VCODEC_H264, 0, 0, 1}},
        {eac3, {NONE, NONE, 2, 32000, 0}},
        {eac3 + ac3, {GOLT_ACODEC_AC3, NONE, 1, 44100, 1}},
        {AAC_TRACK + ac3, {GOLT_ACODEC_AAC, NONE, 1, 8000, 1}},
        {sbr, {GOLT_ACODEC_AAC, NONE, 2, 32000, 1}},
        {far, {GOLT_ACODEC_MP3, NONE, 1, 8000, 0}},
        {vp8 + filled, {NONE, NONE, 0, 0, 1}},
        {filled, {NONE, GOLT_VCODEC_H264, 0, 0, 1}},
        {too_many, {GOLT_ACODEC_AAC, NONE, 1, 8000, 1}},
    };
    for (const auto &[tracks, expected] : rows) {
        SCOPED_TRACE(testing::PrintToString(expected));
        const Bytes body = length_unit({0x41});
        MkvFile file;
        file.cluster(0, {picture(body), sound(body), simple_block(3, 0, body)});
        Demuxer demuxer(file.track(tracks));
        const GOLT_streamInfo_t info = demuxer.info();
        EXPECT_THAT(expected, ElementsAre(info.audioCodec, info.videoCodec, info.aud_numChannels,
                                          info.aud_sampleRate, demuxer.times().size()));
    }
}

// Video

// An H.264 track of that CodecPrivate.
Bytes h264_with(const Bytes &codec_private)
{
    return track_entry(1, 1, "V_MPEG4/ISO/AVC", element(0x63A2, codec_private));
}

TEST(MkvVideo, TurnsLengthsIntoStartCodes)
{
    const Bytes slice = Bytes{0x41} + pattern(999, 1);
    const Bytes idr = Bytes{0x65} + pattern(300, 2);
    const Bytes one = {0x41};
    const Bytes two = {0x41, 0x99};
    const Bytes sets = {0xAA, 0xBB};
    const Bytes set_start = sets + START;
    const std::pair<Bytes, Bytes> rows[] = {
        {length_unit(one) + length_unit(slice), START + one + START + slice},
        {length_unit(slice, 3) + length_unit(two, 3) + length_unit(one, 3),
         START + slice + START + two + START + one},
        {length_unit(idr) + length_unit({0x45}) + length_unit({0x25, 7}),
         set_start + idr + set_start + Bytes{0x45} + set_start + Bytes{0x25, 7}},
        {Bytes(4) + length_unit(slice) + Bytes(4), START + slice},
        {length_unit(slice, 3) + Bytes(3), START + slice},
        {Bytes{0, 0, 0, 200} + one, START + one},
        {Bytes{0, 3, 0} + two, START + two},
        {length_unit(slice) + Bytes{0, 0}, START + slice},
        {{}, {}},
    };
    const Bytes track = h264_with(sets);
    for (const auto &[payload, frame] : rows)
        EXPECT_THAT(frames_of(track, {picture(payload), unit(0x41)}),
                    ElementsAre(frame, START + one));
}

TEST(MkvVideo, LeavesOutWhatTheFrameHasNoRoomFor)
{
    // A frame has 2048 bytes beyond the payload. 20 copies of the sets leave 48 of them, and five
    // of the 100 units that grow by a byte each find no room.
    Bytes payload;
    for (int i = 0; i < 100; ++i)
        payload += length_unit({0x65, 1});
    for (int i = 0; i < 100; ++i)
        payload += length_unit(Bytes(7, 0x41), 3);
    const Bytes track = h264_with(Bytes(100, 0xAA));
    const std::vector<Bytes> frames = frames_of(track, {picture(payload), unit(0x41)});
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].size(), 100 * 6 + 20 * 100 + 95 * 11u);
    EXPECT_EQ(frames[1], START + Bytes{0x41});
}

TEST(MkvVideo, PutsTheRecordsParameterSetsBeforeIdrSlices)
{
    const Bytes sps = Bytes{0x67} + pattern(20, 1);
    const Bytes long_sps = Bytes{0x67} + pattern(111, 2);
    const Bytes pps = {0x68, 0xCE};
    const Bytes pps5 = {0x68, 1, 2, 3, 4};
    const Bytes head = hex("01640028FF");
    const Bytes short_head = head + hex("E10015") + sps;
    const Bytes long_head = head + hex("E10070") + long_sps;
    const std::pair<Bytes, Bytes> rows[] = {
        {short_head + hex("02 0002") + pps + hex("0005") + pps5,
         START + sps + START + pps + START + pps5},
        {short_head + hex("01 0002") + pps + hex("FCF8F800"), START + sps + START + pps},
        {short_head, START + sps},
        {long_head + hex("01 0006") + pps5 + pps, START + long_sps},
        {long_head + hex("01 0005") + pps5, START + long_sps + START + pps5},
        {head + hex("E1 00C0") + Bytes(192, 0x67), {}},
        {head + hex("E0 00"), {}},
        {START + sps, START + sps},
    };
    for (const auto &[record, sets] : rows)
        EXPECT_THAT(frames_of(h264_with(record), {unit(0x65)}),
                    ElementsAre(sets + START + Bytes{0x65}));
}

TEST(MkvVideo, DeliversLargePayloadsAndOtherCodecs)
{
    const Bytes slice = Bytes{0x41} + pattern(3 << 20, 1);
    EXPECT_THAT(frames_of(H264_TRACK, {picture(length_unit(slice)), unit(0x41)}),
                ElementsAre(START + slice, START + Bytes{0x41}));
    EXPECT_THAT(frames_of(track_entry(1, 1, "V_VP8"), {picture(slice)}), ElementsAre(slice));
}

// Audio

TEST(MkvAudio, PutsMissingSyncWordsBack)
{
    const Bytes sync = {0x0B, 0x77};
    const Bytes body = pattern(498, 1);
    EXPECT_THAT(frames_of(track_entry(2, 2, "A_AC3"),
                          {sound(sync + body), sound(body), sound({0x0B}), sound({9, 8})}),
                ElementsAre(sync + body, sync + body, Bytes{0x0B}, sync + Bytes{9, 8}));
    EXPECT_THAT(frames_of(AAC_TRACK, {sound(body)}), ElementsAre(body));
}

TEST(MkvLacing, SplitsBlocks)
{
    for (const Lacing kind : {Lacing::xiph, Lacing::fixed, Lacing::ebml}) {
        for (const uint32_t count : {1u, 2u, 3u, 7u, 16u, 17u, 255u}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(kind) << ", frames " << count);
            std::vector<Bytes> frames;
            for (uint32_t i = 0; i < count; ++i)
                frames.push_back(pattern(kind == Lacing::fixed ? 300 : 100 + 157 * i % 700, i));
            const Bytes laced = laced_block(frames, kind);
            frames.push_back({1, 2});
            EXPECT_EQ(frames_of(AAC_TRACK, {laced, sound({1, 2})}), frames);
        }
    }
}

TEST(MkvLacing, TakesDifferencesOfAllWidths)
{
    // 3 bytes, then one more, one less, one more and what is left.
    const Bytes lace = hex("82 0000 06 04 83 C0 2FFFFE 18000000");
    EXPECT_THAT(frames_of(AAC_TRACK, {element(0xA3, lace + Bytes(16, 7))}),
                ElementsAre(Bytes(3, 7), Bytes(4, 7), Bytes(3, 7), Bytes(4, 7), Bytes(2, 7)));
}

TEST(MkvLacing, SkipsDamagedBlocksWhole)
{
    const std::pair<const char *, Bytes> rows[] = {
        {"256 frames", block(2, 0, std::vector<Bytes>(256, Bytes(2, 1)), Lacing::fixed)},
        {"Xiph beyond the block", hex("82 0000 02 02 40 C0") + pattern(255, 1)},
        {"Xiph without an end", hex("82 0000 02 05") + Bytes(100, 0xFF)},
        {"EBML beyond the block", hex("82 0000 06 02 4100 BF") + pattern(300, 1)},
        {"EBML below nothing", hex("82 0000 06 03 85 80 BF") + pattern(30, 1)},
        {"EBML without a width", hex("82 0000 06 02 00 00") + pattern(30, 1)},
        {"flags missing", hex("82 0000")},
        {"count missing", hex("82 0000 02")},
    };
    for (const auto &[name, damaged] : rows) {
        SCOPED_TRACE(name);
        EXPECT_THAT(frames_of(AAC_TRACK, {element(0xA3, damaged), sound({1})}),
                    ElementsAre(Bytes{1}));
    }
}

TEST(MkvLacing, GoesOnBehindTheRemainderOfFixedSizes)
{
    const Bytes odd = laced_block({{1, 2, 3}, {4, 5, 6}, {0, 0}}, Lacing::fixed);
    EXPECT_THAT(frames_of(AAC_TRACK, {odd, sound({7, 8}), sound({9})}),
                ElementsAre(Bytes{1, 2}, Bytes{3, 4}, Bytes{5, 6}, Bytes{7, 8}, Bytes{9}));
}

// Clusters, clock and seeking

TEST(MkvClusters, EndTheStreamAtAnyOtherElement)
{
    MkvFile file = three_clusters();
    file.between_clusters = element(0xEC, Bytes(5));
    EXPECT_THAT(Demuxer(file).times(), ElementsAre(0, 40));
}

TEST(MkvClusters, LoseOnlyADamagedClustersRest)
{
    MkvFile file;
    file.track(AAC_TRACK).cluster(0, {sound({1}), Bytes(4000), sound({2})});
    file.cluster(0, {sound({3})});
    EXPECT_THAT(Demuxer(file).contents(), ElementsAre(Bytes{1}, Bytes{3}));
}

TEST(MkvClusters, GoPastOtherTracksAndTimesBelowZero)
{
    MkvFile file;
    file.cluster(0, {simple_block(7, 0, pattern(500, 1)), simple_block(300, 0, {1})});
    file.track(H264_TRACK).cluster(0, {unit(0x41, -1)}).cluster(100, {unit(0x41, -1)});
    EXPECT_THAT(Demuxer(file).times(), ElementsAre(0xFFFFFFFF, 99));
}

// Two clusters, each of laced sound, a key frame, laced sound and another picture.
MkvFile sound_and_pictures()
{
    MkvFile file;
    file.track(H264_TRACK).track(track_entry(2, 2, "A_AAC", number_element(0x23E383, 32000000)));
    const Bytes laced = laced_block({Bytes(9, 1), Bytes(7, 2), {3}}, Lacing::xiph);
    const Bytes key = picture(length_unit({0x67, 1, 2}) + length_unit(Bytes(9, 0x65)));
    for (const uint32_t time : {2000u, 4000u})
        file.cluster(time, {laced, key, laced, unit(0x41, 80)});
    return file.cue(2000, 0).cue(4000, 1).cue(6000, 1);
}

TEST(MkvAudioClock, RunsOnOverBlocksAndClusters)
{
    EXPECT_THAT(Demuxer(sound_and_pictures()).times(),
                ElementsAre(2000, 2032, 2064, 2000, 2096, 2128, 2160, 2080, 2192, 2224, 2256, 4000,
                            2288, 2320, 2352, 4080));
    MkvFile file;
    file.track(track_entry(2, 2, "A_AAC", number_element(0x23E383, 23219955)));
    file.cluster(10, std::vector<Bytes>(44, sound({1})));
    EXPECT_EQ(Demuxer(file).times().back(), 10 + 998u) << "43 x 1024 samples at 44100 Hz";
}

TEST(MkvSeek, DropsPendingSoundAndStartsTheClockAfresh)
{
    Demuxer demuxer(sound_and_pictures());
    EXPECT_EQ(demuxer.times(2).size(), 2u) << "one frame of the lace is left";
    ASSERT_TRUE(GOLT_DMX_MKVSeekToTime(4500));
    EXPECT_THAT(demuxer.times(), ElementsAre(4000, 4000, 4032, 4064, 4080));
}

TEST(MkvSeek, FollowsTheCues)
{
    // Where to, and what comes next of a demuxer that stands at 40. A refused seek changes nothing.
    const std::pair<uint64_t, uint64_t> rows[] = {{7000, 5000}, {5000, 5000},
                                                  {4999, 0},    {(uint64_t{1} << 32) + 5000, 5000},
                                                  {10000, 40},  {99999, 40}};
    for (const auto &[to, next] : rows) {
        SCOPED_TRACE(to);
        Demuxer demuxer(three_clusters());
        EXPECT_THAT(demuxer.times(1), ElementsAre(0));
        EXPECT_EQ(GOLT_DMX_MKVSeekToTime(to), next != 40);
        EXPECT_THAT(demuxer.times(1), ElementsAre(next));
    }
    Demuxer single(MkvFile().track(H264_TRACK).cluster(2000, {unit(0x65)}).cue(2000, 0));
    EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(2000));
    EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(100));
}

TEST(MkvSeek, StopsAtAKeyFrameOrAtTheTime)
{
    MkvFile file;
    const Bytes hidden_key = simple_block(1, 40, length_unit({0x09}) + length_unit({0x65}));
    file.cluster(0, {sound({1}), unit(0x41), hidden_key, unit(0x41, 80), unit(0x65, 120)});
    file.track(H264_TRACK).track(AAC_TRACK).cue(0, 0).cue(1000, 0);
    Demuxer demuxer(file);
    EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(500));
    EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(41)) << "what the seek before left pending is dropped";
    EXPECT_THAT(demuxer.times(), ElementsAre(80, 120));
    Demuxer no_video(MkvFile().track(AAC_TRACK).cluster(0, {sound({1})}).cue(0, 0).cue(9, 0));
    EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(5));
}

// Damage and lifecycle

TEST(MkvDamage, CutFilesGiveTheFramesInFrontOfTheCut)
{
    const Bytes file = sound_and_pictures().build();
    const std::vector<Bytes> all = Demuxer(file).contents();
    for (auto end = file.begin(); end != file.end(); ++end) {
        SCOPED_TRACE(end - file.begin());
        std::vector<Bytes> frames = Demuxer(Bytes(file.begin(), end)).contents();
        ASSERT_LE(frames.size(), all.size());
        // The last one keeps its size and is 0 behind the cut.
        for (size_t at = 0; !frames.empty() && at < frames.back().size(); ++at)
            if (frames.back()[at] == 0) frames.back()[at] = all[frames.size() - 1].at(at);
        ASSERT_TRUE(std::equal(frames.begin(), frames.end(), all.begin()));
    }
}

TEST(MkvDamage, HugeSizesNeedTheirBytes)
{
    for (const uint32_t size : {0x300000u, 0x4000000u, 0x4000010u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(size);
        const Bytes huge = Bytes{0xA3} + vint(size, 5) + block(1, 0, {pattern(99, 1)});
        EXPECT_EQ(frames_of(H264_TRACK, {unit(0x41), huge}).size(), 1u);
    }
}

TEST(MkvLifecycle, AnswersWithoutASourceAndReleasesWhatIsPending)
{
    EXPECT_TRUE(read_frames(GOLT_DMX_MKVReadFrame).empty());
    EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(0));
    EXPECT_TRUE(GOLT_DMX_MKVDestroy());

    // The rest of a lace, and the picture that ends a seek, are leaks if they are lost.
    Demuxer first(sound_and_pictures());
    EXPECT_EQ(first.times(1).size(), 1u);
    Demuxer second(sound_and_pictures());
    EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(2000));
    Demuxer third(three_clusters());
    EXPECT_EQ(third.times().size(), 6u);
}

}  // namespace
