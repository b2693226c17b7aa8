#include "dmx_mp4.h"

#include <gtest/gtest.h>

#include "host_double.h"
#include "mp4_builder.h"

namespace {

// An opened demuxer with what it printed while it opened.
class Demuxer {
public:
    explicit Demuxer(const Bytes &file)
        : source(file)
    {
        testing::internal::CaptureStdout();
        valid = GOLT_DMX_MP4Init(Source::read_proc, Source::seek_proc, &source);
        printed = testing::internal::GetCapturedStdout();
    }
    explicit Demuxer(const Mp4File &file)
        : Demuxer(file.build())
    {
    }
    explicit Demuxer(const Mp4Track &track)
        : Demuxer(Mp4File().add(track))
    {
    }
    ~Demuxer() { GOLT_DMX_MP4Destroy(); }
    Demuxer(const Demuxer &) = delete;
    Demuxer &operator=(const Demuxer &) = delete;

    std::vector<Frame> frames() { return read_frames(GOLT_DMX_MP4ReadFrame); }
    std::vector<uint64_t> times()
    {
        std::vector<uint64_t> out;
        for (const Frame &frame : frames())
            out.push_back(frame.time_ms);
        return out;
    }
    GOLT_streamInfo_t info()
    {
        GOLT_streamInfo_t out = {};
        GOLT_DMX_MP4GetStreamInfo(&out);
        return out;
    }
    std::string seek(uint64_t time_ms)
    {
        testing::internal::CaptureStdout();
        EXPECT_TRUE(GOLT_DMX_MP4SeekToTime(time_ms));
        return testing::internal::GetCapturedStdout();
    }

    Source source;
    bool valid;
    std::string printed;
};

std::string missing(const char *walker, int expected, int got)
{
    char line[100];
    snprintf(line, sizeof line, "GOLT/mp4: _dmx_mp4_%s: expected 0x%x boxes, got 0x%x\n", walker,
             expected, got);
    return line;
}

std::string not_found(const char *box_name)
{
    return std::string("GOLT/mp4: _dmx_mp4_parse_stbl: Sync Sample Box '") + box_name +
           "' not found\n";
}

Mp4Track video_of(uint32_t samples)
{
    Mp4Track track = Mp4Track::video();
    for (uint32_t i = 0; i < samples; ++i)
        track.sample(nal({0x41, static_cast<uint8_t>(i)}));
    return track;
}

Mp4Track audio_of(uint32_t samples)
{
    Mp4Track track = Mp4Track::audio();
    for (uint32_t i = 0; i < samples; ++i)
        track.sample({0xAA, static_cast<uint8_t>(i)});
    return track;
}

Bytes flat(const std::vector<Frame> &frames)
{
    Bytes out;
    for (const Frame &frame : frames)
        out += frame.data;
    return out;
}

TEST(Mp4Walk, FindsTheMovieInAnyOrderOfBoxes)
{
    const Bytes other = box("free", Bytes(20));
    const struct {
        const char *name;
        std::vector<std::string> order;
        bool valid;
        std::string printed;
        size_t frames;
    } rows[] = {
        {"movie first", {"ftyp", "moov", "mdat"}, true, "", 3},
        {"movie last", {"ftyp", "mdat", "moov"}, true, "", 3},
        {"others between", {"ftyp", "free", "moov", "free", "mdat"}, true, "", 3},
        {"no media data", {"ftyp", "moov"}, true, "", 0},
        {"no movie", {"ftyp", "mdat"}, false, missing("parse", 1, 0), 0},
        {"no file type", {"moov", "mdat"}, false, "GOLT/mp4: 'ftyp' box not found\n", 0},
        {"nothing", {}, false, "GOLT/mp4: Header read error\n", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4Track track = video_of(3);
        track.stss = {1};
        track.ctts = {{3, 0}};
        Mp4File file = Mp4File().add(track);
        file.order = row.order;
        file.put["free"] = other;
        Demuxer demuxer(file);
        EXPECT_EQ(demuxer.valid, row.valid);
        EXPECT_EQ(demuxer.printed, row.printed);
        EXPECT_EQ(demuxer.frames().size(), row.frames);
    }
}

TEST(Mp4Walk, ReadsNoFurtherThanItNeeds)
{
    Mp4File file = Mp4File().add(video_of(1)).add(audio_of(1));
    Demuxer first(file);
    EXPECT_EQ(first.source.position(), static_cast<int64_t>(file.build().size()) - 8 - 8 + 8)
        << "stops behind the header of mdat";

    Demuxer last(file.moov_last());
    EXPECT_EQ(last.source.position(), 8 + 16 + 4) << "goes back to mdat";
}

TEST(Mp4Walk, TakesTracksInTheFilesOrderUntilOneFails)
{
    Mp4Track text = video_of(2);
    text.handler = "text";
    Mp4Track nameless = video_of(2);
    nameless.id = 0;
    Mp4Track other_video = video_of(5);
    Mp4Track timeless = video_of(2);
    timeless.time_scale = 0;
    timeless.duration = 0;
    Mp4Track late_clock = video_of(2);
    late_clock.order["mdia"] = {"hdlr", "mdhd", "minf"};
    Mp4Track late_kind = video_of(2);
    late_kind.order["mdia"] = {"mdhd", "minf", "hdlr"};
    const Mp4Track video = video_of(3), audio = audio_of(2);
    const struct {
        const char *name;
        std::vector<Mp4Track> tracks;
        size_t video_frames, audio_frames;
    } rows[] = {
        {"both", {video, audio}, 3, 2},
        {"both, audio first", {audio, video}, 3, 2},
        {"text ends the walk", {video, text, audio}, 3, 0},
        {"text first", {text, video}, 0, 0},
        {"the later of a kind wins", {video, other_video, audio}, 5, 2},
        {"what follows both is not read", {video, audio, text}, 3, 2},
        {"an ID of 0 is no track", {nameless, audio}, 0, 2},
        {"no time scale", {timeless, audio}, 0, 0},
        {"time scale behind the kind", {late_clock, audio}, 0, 0},
        {"tables ahead of the kind", {late_kind, audio}, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4File file;
        for (const Mp4Track &track : row.tracks)
            file.add(track);
        Demuxer demuxer(file);
        EXPECT_TRUE(demuxer.valid);
        size_t count[GOLT_FT_MAX] = {};
        for (const Frame &frame : demuxer.frames())
            ++count[frame.type];
        EXPECT_EQ(count[GOLT_FT_VIDEO], row.video_frames);
        EXPECT_EQ(count[GOLT_FT_AUDIO], row.audio_frames);
    }
    Demuxer demuxer(Mp4File().add(text));
    EXPECT_EQ(demuxer.printed, missing("parse_mdia", 7, 1) + missing("parse_track", 3, 1));
}

TEST(Mp4Tables, NameWhatIsMissing)
{
    const struct {
        const char *name;
        std::vector<std::string> boxes;
        std::string printed;
        size_t frames;
    } rows[] = {
        {"64-bit chunk offsets",
         {"stsd", "stts", "stsc", "stsz", "co64"},
         missing("parse_stbl", 15, 11),
         0},
        {"compact sizes",
         {"stsd", "stts", "stsc", "stz2", "stco"},
         missing("parse_stbl", 15, 13),
         0},
        {"no description", {"stts", "stsc", "stsz", "stco"}, missing("parse_stbl", 15, 14), 0},
        {"nothing optional",
         {"stsd", "stsc", "stsz", "stco"},
         not_found("stss") + not_found("stts") + not_found("ctts"),
         3},
        {"any order",
         {"stco", "stsz", "stsc", "stts", "stsd"},
         not_found("stss") + not_found("ctts"),
         3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4Track track = video_of(3);
        track.order["stbl"] = row.boxes;
        track.put["co64"] = table_box("co64", 1, {0, 100});
        track.put["stz2"] = full_box("stz2", be32(8) + be32(3) + Bytes{6, 6, 6});
        Demuxer demuxer(track);
        EXPECT_EQ(demuxer.printed.rfind(row.printed, 0), 0u) << demuxer.printed;
        EXPECT_EQ(demuxer.frames().size(), row.frames);
    }
}

TEST(Mp4Tables, PlaceSamplesOfEveryChunk)
{
    for (const uint32_t constant : {0u, 6u}) {
        Mp4Track video = video_of(13), audio = audio_of(40);
        video.constant_size = constant;
        video.chunks = {3, 3, 3, 2, 2};
        audio.chunks = {1, 10, 10, 4, 15};
        Demuxer demuxer(Mp4File().add(video).add(audio));
        std::vector<uint8_t> next(GOLT_FT_MAX);
        for (const Frame &frame : demuxer.frames())
            EXPECT_EQ(frame.data.back(), next[frame.type]++);
        EXPECT_EQ(next[GOLT_FT_VIDEO], 13);
        EXPECT_EQ(next[GOLT_FT_AUDIO], 40);
    }
}

TEST(Mp4Tables, TellTimesInMilliseconds)
{
    const struct {
        const char *name;
        uint32_t time_scale;
        std::vector<Mp4Run> stts, ctts;
        int64_t duration;
        std::vector<uint64_t> times;
    } rows[] = {
        {"constant interval", 48000, {{3, 1024}}, {}, -1, {0, 21, 42}},
        {"two runs", 1000, {{2, 1000}, {1, 2000}}, {}, -1, {0, 1000, 2000}},
        {"reordered", 12800, {{3, 512}}, {{1, 1024}, {2, 0}}, -1, {80, 40, 80}},
        {"negative offsets", 1000, {{3, 40}}, {{1, 80}, {2, 0xFFFFFFD8}}, -1, {80, 0, 40}},
        {"no durations", 1000, {}, {}, 120, {0, 40, 80}},
        {"offsets alone", 1000, {}, {{2, 7}, {1, 9}}, 120, {7, 7, 9}},
        {"runs beyond the samples",
         1000,
         {{2, 10}, {0xFFFFFFFF, 20}},
         {{0xFFFFFFFF, 1}},
         40,
         {1, 11, 21}},
        {"90 kHz wraps after 13 hours",
         90000,
         {{1, 0xFFFFFFF0}, {2, 0x10}},
         {},
         0,
         {0, 47721858, 0}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4Track track = video_of(3);
        track.time_scale = row.time_scale;
        track.stts = row.stts;
        track.ctts = row.ctts;
        track.duration = row.duration;
        if (row.stts.empty())
            track.put["stts"] = row.ctts.empty() ? Bytes() : table_box("stts", 0, {});
        EXPECT_EQ(Demuxer(track).times(), row.times);
    }
}

// Tables that contradict each other or the file end in fewer frames, never outside of a table.
TEST(Mp4Tables, ThatAreUnsoundDeliverWhatIsSound)
{
    const struct {
        const char *name;
        const char *box;
        Bytes replacement;
        size_t frames;
    } rows[] = {
        {"more samples than sizes", "stsc", table_box("stsc", 1, {1, 100, 1}), 3},
        {"more chunks than offsets", "stsc", table_box("stsc", 2, {1, 2, 1, 9, 1, 1}), 2},
        {"chunk 0", "stsc", table_box("stsc", 1, {0, 3, 1}), 0},
        {"chunks that fall", "stsc", table_box("stsc", 3, {1, 1, 1, 1, 1, 1, 1, 1, 1}), 0},
        {"no samples in a chunk", "stsc", table_box("stsc", 1, {1, 0, 1}), 0},
        {"no runs", "stsc", table_box("stsc", 0, {}), 0},
        {"count beyond its box", "stco", full_box("stco", be32(1000) + be32(48)), 0},
        {"sizes beyond 4 GiB", "stsz",
         full_box("stsz", be32(0) + be32(3) + be32(6) + be32(0xFFFFFFF0) + be32(6)), 1},
        {"constant size without end", "stsz", full_box("stsz", be32(0x10000000) + be32(3)), 0},
        {"billions of samples", "stsc", table_box("stsc", 1, {1, 0xFFFFFFFF, 1}), 3},
        {"cut inside", "stts", be32(17) + text("stts") + be32(0) + be32(1) + Bytes(1), 0},
        {"size below a header", "stts", be32(7) + text("stts"), 0},
        {"size to the end", "stts", be32(0) + text("stts"), 0},
        {"size past 4 GiB", "stts", be32(0xFFFFFFFF) + text("stts") + be32(0) + be32(0), 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4Track track = video_of(3);
        track.put[row.box] = row.replacement;
        Demuxer demuxer(track);
        EXPECT_TRUE(demuxer.valid);
        EXPECT_EQ(demuxer.frames().size(), row.frames);
    }
}

TEST(Mp4Tables, DoNotBelieveCountsThatOnlyALongFileCouldHold)
{
    // Each would take gigabytes if it were believed.
    Mp4Track sizes = video_of(3);
    sizes.put["stsz"] = be32(0x80000000) + text("stsz") + Bytes(4) + be32(0) + be32(0x10000000);
    Mp4Track constant = video_of(3);
    constant.put["stsz"] = full_box("stsz", be32(1) + be32(3));
    constant.put["stsc"] = table_box("stsc", 1, {1, 0xF0000000, 1});
    Mp4Track sample = video_of(3);
    sample.put["stsz"] = full_box("stsz", be32(0x7FFFFFFF) + be32(3));
    Mp4Track record = video_of(3);
    record.put["avcC"] = be32(0x7FFFFFF0) + text("avcC") + Bytes(20);
    for (const Mp4Track &track : {sizes, constant, sample, record}) {
        Mp4File file = Mp4File().add(track);
        Bytes bytes = file.build();
        Demuxer demuxer(bytes);
        EXPECT_TRUE(demuxer.frames().empty());
    }
}

TEST(Mp4Walk, EndsWhereverTheFileIsCut)
{
    const Bytes whole = Mp4File().add(video_of(4)).add(audio_of(4)).build();
    const Bytes plain = flat(Demuxer(whole).frames());
    for (size_t size = 0; size < whole.size(); ++size) {
        Bytes cut = whole;
        cut.resize(size);
        const Bytes got = flat(Demuxer(cut).frames());
        EXPECT_TRUE(got.size() <= plain.size() && std::equal(got.begin(), got.end(), plain.begin()))
            << size;
    }
}

TEST(Mp4Descriptions, TellTheAudioFormat)
{
    const struct {
        const char *name, *entry, *esds, *dsi;
        GOLT_codecs_t codec;
        uint32_t rate;
        const char *printed;
    } rows[] = {
        {"AAC", "mp4a", "40", "1210", GOLT_ACODEC_AAC, 44100, "Audio format: AAC\n"},
        {"AAC, 96000", "mp4a", "40", "1010", GOLT_ACODEC_AAC, 96000, "Audio format: AAC\n"},
        {"AAC, reserved index", "mp4a", "40", "1690", GOLT_ACODEC_AAC, 0, "Audio format: AAC\n"},
        {"AAC, rate in full", "mp4a", "40", "1780BB8000", GOLT_ACODEC_AAC, 96000,
         "Audio format: AAC\n"},
        {"escaped type", "mp4a", "40", "F90C", GOLT_ACODEC_AAC, 24000, "Audio format: AAC\n"},
        {"escaped type, rate in full", "mp4a", "40", "F91E017700", GOLT_ACODEC_AAC, 0xBB80,
         "AAC\n"},
        {"AAC without its block", "mp4a", "40", "", GOLT_ACODEC_AAC, 48000, "Audio format: AAC\n"},
        {"MP3", "mp4a", "6B", "", GOLT_ACODEC_MP3, 48000, "Audio format: MP3\n"},
        {"unknown object", "mp4a", "DD", "", GOLT_CODEC_UNKNOWN, 48000, ""},
        {"AC-3", "ac-3", "40", "", GOLT_ACODEC_AC3, 48000, "Audio format: AC3\n"},
        {"E-AC-3", "ec-3", "40", "", GOLT_ACODEC_EAC3, 48000, "Audio format: EAC3\n"},
        {"Opus", "Opus", "40", "", GOLT_CODEC_UNKNOWN, 0, "Audio format: 'Opus' unsupported\n"},
    };
    for (const bool is_long : {false, true}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            Mp4Track track = audio_of(2);
            track.entry_type = row.entry;
            track.object_type = hex(row.esds)[0];
            track.dsi = hex(row.dsi);
            track.long_lengths = is_long;
            track.channels = 6;
            Demuxer demuxer(track);
            EXPECT_EQ(demuxer.info().audioCodec, row.codec);
            EXPECT_EQ(demuxer.info().aud_sampleRate, row.rate);
            EXPECT_NE(demuxer.printed.find(row.printed), std::string::npos) << demuxer.printed;
        }
    }
}

TEST(Mp4Descriptions, TellTheVideoFormat)
{
    const struct {
        const char *name;
        uint32_t resolution_x, resolution_y, numerator, denominator;
    } rows[] = {
        {"square", 0x480000, 0x480000, 1, 1},
        {"wide", 0x480000, 0x240000, 2, 1},
        {"none", 0, 0, 1, 1},
        {"one missing", 0, 0x480000, 0, 1},
        {"smallest by minus one", 0x80000000, 0xFFFFFFFF, 0, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp4Track track = video_of(2);
        track.resolution_x = row.resolution_x;
        track.resolution_y = row.resolution_y;
        const GOLT_streamInfo_t info = Demuxer(track).info();
        EXPECT_EQ(info.vid_pixelAspectNumerator, row.numerator);
        EXPECT_EQ(info.vid_pixelAspectDenominator, row.denominator);
        EXPECT_EQ(info.videoCodec, GOLT_VCODEC_H264);
    }
    Mp4Track track = video_of(2);
    track.entry_type = "mp4a";
    EXPECT_EQ(Demuxer(track).printed.rfind("GOLT/mp4: Unsupported Video Codec format 'mp4a'\n", 0),
              0u);
    track = video_of(2);
    track.put["avcC"] = {};
    EXPECT_EQ(Demuxer(track).printed.rfind("GOLT/mp4: 'avcC' box not found\n", 0), 0u);
    track.put["avcC"] = box("avcC", {1});
    EXPECT_EQ(
        Demuxer(track).printed.rfind("GOLT/mp4: Couldn't alloc -4 bytes for 'avcC' header\n", 0),
        0u);
}

TEST(Mp4Info, TellsTheFrameRate)
{
    const struct {
        uint32_t samples, duration_ms, rate;
    } rows[] = {{250, 10000, 25000}, {250, 10900, 25000}, {12, 480, 25000}, {10, 0, 0}};
    for (const auto &row : rows) {
        Mp4Track track = video_of(row.samples);
        track.duration = row.duration_ms;
        const GOLT_streamInfo_t info = Demuxer(track).info();
        EXPECT_EQ(info.vid_framesPerKiloSeconds, row.rate);
        EXPECT_EQ(info.duration, row.duration_ms);
        EXPECT_EQ(info.audioCodec, GOLT_CODEC_UNKNOWN);
    }
}

TEST(Mp4Frames, CarryParameterSetsOnceAndStartCodes)
{
    Mp4Track track = Mp4Track::video();
    const Bytes first = pattern(10, 1), second = pattern(20, 2);
    track.sample(nal(first) + nal(second)).sample(nal(first)).sample({});
    track.sps = {pattern(20, 3), pattern(5, 4)};
    track.pps = {pattern(4, 5), pattern(3, 6)};
    const Bytes start = hex("00000001");
    const Bytes header =
        start + track.sps[0] + start + track.sps[1] + start + track.pps[0] + start + track.pps[1];
    {
        const std::vector<Frame> frames = Demuxer(track).frames();
        ASSERT_EQ(frames.size(), 3u);
        EXPECT_EQ(frames[0].data, header + start + first + start + second);
        EXPECT_EQ(frames[1].data, start + first);
        EXPECT_TRUE(frames[2].data.empty());
    }
    Demuxer demuxer(track);
    EXPECT_EQ(demuxer.seek(40), "GOLT/mp4: seek: v(1), a(0)\n");
    EXPECT_EQ(demuxer.frames()[0].data, header + start + first) << "whichever frame comes first";
    EXPECT_EQ(demuxer.seek(0), "GOLT/mp4: seek: v(0), a(0)\n");
    EXPECT_EQ(demuxer.frames()[0].data, start + first + start + second);
}

TEST(Mp4Frames, OfUnsoundLengthsStayInTheirBlock)
{
    const Bytes start = hex("00000001");
    const Bytes header = start + hex("6742001E") + start + hex("68CE");
    const struct {
        const char *name;
        Bytes sample, expected;
    } rows[] = {
        {"unit past the end", hex("00000063 6501"), start + hex("6501")},
        {"largest length", hex("FFFFFFFF 6501"), start + hex("6501")},
        {"tail below a length", hex("00000002 6501 0000"), start + hex("65010000")},
        {"empty units", hex("00000000 00000000"), start + start},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Demuxer(Mp4Track::video().sample(row.sample)).frames()[0].data,
                  header + row.expected);
    }
    // A set that runs over its block is left out, with all behind it.
    Mp4Track track = video_of(1);
    track.put["avcC"] = box("avcC", hex("01420 01EFF E2 0002 6742 0009 6743 01 0001 68"));
    EXPECT_EQ(Demuxer(track).frames()[0].data, start + hex("6742") + start + hex("4100"));
}

TEST(Mp4Frames, ComeInTimeOrderAndByOffsetWhereTimesAreEqual)
{
    for (const bool video_first : {true, false}) {
        Mp4Track video = video_of(3), audio = audio_of(5);
        audio.time_scale = 1000;
        audio.delta = 20;
        Mp4File file;
        if (video_first)
            file.add(video).add(audio);
        else
            file.add(audio).add(video);
        std::string order;
        for (const Frame &frame : Demuxer(file).frames())
            order += frame.type == GOLT_FT_VIDEO ? 'v' : 'a';
        EXPECT_EQ(order, video_first ? "vaavaava" : "avaavaav");
    }
}

TEST(Mp4Seek, LandsOnTheNextSyncSample)
{
    Mp4Track video = video_of(750), audio = audio_of(1500);
    video.stss = {1, 251, 501};
    audio.time_scale = 1000;
    audio.delta = 20;
    Demuxer demuxer(Mp4File().add(video).add(audio));
    const struct {
        uint64_t time_ms;
        const char *printed;
    } rows[] = {
        {0, "v(0), a(0)"},           {1, "v(0), a(0)"},
        {40, "v(250), a(500)"},      {12000, "v(500), a(1000)"},
        {20000, "v(500), a(1000)"},  {24000, "v(600), a(1200)"},
        {90000, "v(2250), a(4500)"}, {UINT64_MAX, "v(-1), a(-1)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(demuxer.seek(row.time_ms), std::string("GOLT/mp4: seek: ") + row.printed + "\n");
    EXPECT_TRUE(demuxer.frames().empty());
    demuxer.seek(24000);
    EXPECT_TRUE(GOLT_DMX_MP4SeekToBytes(0));
    EXPECT_EQ(demuxer.frames().size(), 150u + 300u) << "a seek brings an ended stream back";
}

TEST(Mp4Frames, ThatCannotBeReadAreTriedAgain)
{
    Demuxer demuxer(Mp4File().add(video_of(3)));
    demuxer.source.fail_from = demuxer.source.size() - 6;
    EXPECT_EQ(demuxer.frames().size(), 2u);
    demuxer.source.fail_from = -1;
    demuxer.source.refuse_seeks = true;
    EXPECT_TRUE(demuxer.frames().empty());
    demuxer.source.refuse_seeks = false;
    EXPECT_EQ(demuxer.times(), std::vector<uint64_t>{80});
}

}  // namespace
