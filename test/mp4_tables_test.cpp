#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "mp4_movie.h"

namespace {

using ::testing::ElementsAre;

struct Case {
    const char *name, *changes, *expected;
};

// "moov" decides whether a file is taken, its tables which frames come: those that all tables agree
// upon, and nothing from outside of a table.
TEST(Mp4, DeliversWhatTheTablesAgreeUpon)
{
    const Case cases[] = {
        {"both tracks", "order=va", "v0 a0 a21 v40 v80"},
        {"audio first in the file", "order=av", "a0 v0 a21 v40 v80"},
        {"movie last", "file=ftyp,mdat,moov", "v0 v40 v80"},
        {"no media data", "file=ftyp,moov", ""},
        {"text ends the walk", "order=vta", "v0 v40 v80"},
        {"text first", "order=tva", ""},
        {"two of a kind", "order=vvat", "v0 a0 a21 v40 v80"},
        {"a second one of another codec", "order=vh ctts=2,1,80,2,0", "v80 v40 v80"},
        {"a second audio track of another codec", "order=alv", "a0 a21"},
        {"clock after the kind", "mdia=hdlr,mdhd,minf", ""},
        {"tables ahead of the kind", "mdia=mdhd,minf,hdlr", ""},
        {"a second mdia without its kind",
         "trak=tkhd,mdia,more more:000000186D646961000000106D696E66000000087374626C", "v0 v40 v80"},
        {"no time scale", "mdhd=0,0,0,0,0,0", ""},
        {"seconds", "mdhd=0,0,1,3,0 stts=1,3,1", "v0 v1000 v2000"},
        {"no time scale after the kind",
         "mdia=mdhd,hdlr,more,minf more:000000206D64686400000000000000000000000000000000000000000000"
         "0000",
         ""},
        {"an ID of 0 is no track", "order=va tkhd=0,0,0,0", "a0 a21"},

        {"two runs of durations", "stts=2,2,1000,1,2", "v0 v1000 v2000"},
        {"reordered", "ctts=2,1,80,2,0", "v80 v40 v80"},
        {"negative offsets", "ctts=2,1,80,2,0xFFFFFFD8", "v80 v0 v40"},
        {"no durations", "stts:", "v0 v40 v80"},
        {"samples beyond the runs", "stts=2,1,1000,1,2", "v0 v1000 v0"},
        {"runs beyond the samples", "stts=2,2,10,-1,20 ctts=1,-1,1", "v1 v11 v21"},
        {"32 bits of ticks", "stts=2,1,-5,2,5", "v0 v4294967291 v0"},

        {"more samples than sizes", "stsc=1,1,-1,1", "v0 v40 v80"},
        {"more chunks than offsets", "stsc=2,1,2,1,9,1,1", "v0 v40"},
        {"chunk 0", "stsc=1,0,3,1", ""},
        {"a run of no chunks", "stsc=2,1,7,1,1,3,1", "v0 v40 v80"},
        {"chunks that fall", "stsc=3,1,2,1,5,1,1,1,3,1", "v0 v40 v80"},
        {"no samples in a chunk", "stsc=1,1,0,1", ""},
        {"no samples in chunk 0", "stsc=2,0,0,1,1,3,1", "v0 v40 v80"},
        {"count beyond the file", "stco=9,48", ""},
        {"a size too many", "stsz=0,4,6,6,6", "v0 v40 v80"},
        {"a sync sample too many", "order=va stss=2,1", "v0 a0 a21 v40 v80"},
        {"a short trak", "short=trak", "v0 v40 v80"},
        {"a short entry", "short=avc1", "v0 v40 v80"},
        {"no more than 16 that overhang", "order=vvvvvvvvvvvvvvvva stss=2,1", "v0 a0 a21 v40 v80"},
        {"the one after them", "order=vvvvvvvvvvvvvvvvva stss=2,1", "v0 v40 v80"},
        {"samples past 4 GiB", "stsz=0,3,6,-9,6", "v0"},
        {"sync samples beyond the file", "stss=99,1", ""},
        {"sync samples past 4 GiB", "stss=0x40000001,1", ""},
        {"size of 7", "dinf:0000000764696E66", ""},
        {"size of 0", "dinf:0000000064696E66", ""},
        {"box past 4 GiB", "dinf:FFFFFFF864696E66", ""},

        // Each of these would take gigabytes if it were believed.
        {"a table", "stsz:800000007374737A000000000000000010000000", ""},
        {"samples of one size", "stsz=6,3 stsc=1,1,-9,1", "v0 v40 v80"},
        {"two such tracks", "order=vv stsz=6,3 stsc=1,1,600000,1", "v0 v40 v80"},
        {"two that take all", "order=vv stsz=6,3 stsc=1,1,-9,1", ""},
        {"a sample", "stsz=0x7FFFFFFF,3", ""},
        {"parameter sets", "avcC:7FFFFFF061766343000000000000000000000000", ""},
    };
    for (const Case &row : cases) {
        SCOPED_TRACE(row.name);
        Demuxer demuxer(Movie().change(row.changes).build());
        EXPECT_TRUE(demuxer.valid);
        EXPECT_EQ(demuxer.times(), row.expected);
    }
}

// Two runs of chunks between those of another track. The sizes go on after the last sample.
TEST(Mp4, FindsTheSamplesOfEachChunk)
{
    Movie movie;
    movie.order = "va";
    movie.v.samples.clear();
    for (uint32_t i = 0; i < 50; ++i)
        movie.v.sample(nal(pattern(1 + i * 5 % 7, i)));
    movie.v.chunks = {3, 3, 3};
    movie.v.chunks.resize(44, 1);
    movie.v.put["stsc"] = table_box("stsc", 2, {1, 3, 1, 4, 1, 1});
    std::vector<size_t> sizes = {52};
    for (const Bytes &sample : movie.v.samples)
        sizes.push_back(sample.size());
    sizes.insert(sizes.end(), {1, 1});
    movie.v.put["stsz"] = table_box("stsz", 0, sizes);
    movie.a.samples = {{1, 2}, {3, 4}, {5, 6}};
    movie.a.chunks = {1, 1, 1};
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.info.vid_framesPerKiloSeconds, 25000u);
    std::vector<Bytes> got;
    for (const Frame &frame : demuxer.frames()) {
        if (frame.type == GOLT_FT_VIDEO) got.push_back(frame.data);
    }
    ASSERT_EQ(got.size(), 50u);
    for (uint32_t i = 1; i < got.size(); ++i)
        EXPECT_EQ(got[i], START + pattern(1 + i * 5 % 7, i)) << i;
}

// The mean interval and the rate go by all samples, also where not all are laid out.
TEST(Mp4, CountsTheSamplesThatAreLeftOut)
{
    Movie movie;
    movie.v.duration = 3000000 * 40;
    movie.v.chunks = {1, 2};
    movie.change("stsz=6,3 stsc=3,1,1000000,1,2,7,1,2,2000000,1 stts=2,1,40,2999999,40");
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.info.vid_framesPerKiloSeconds, 25000u);
    EXPECT_EQ(demuxer.seek(80), "GOLT/mp4: seek: v(2), a(0)\n");
    EXPECT_EQ(demuxer.times(), "v80");

    // As many as are laid out: 2 Mi, of which the last one is the first of the second chunk.
    Demuxer full(Movie(movie).change("stsz=6,3 stsc=2,1,2097151,1,2,2,1 stts=1,-1,40").build());
    full.seek(2097151 * 40);
    EXPECT_EQ(full.times(), "v83886040");
}

// Each request of memory is refused in turn. A track that misses a table is the last one.
TEST(Mp4, EndsWithTheTrackThatHasNoMemory)
{
    for (int granted = 0; granted < 14; ++granted) {
        g_heap.granted = granted;
        g_heap.refused = 1;
        Movie movie;
        movie.order = "va";
        Demuxer demuxer(movie.change("stts=2,2,40,1,40 stss=1,1").build());
        g_heap.granted = INT_MAX;
        EXPECT_EQ(demuxer.times(), granted < 7    ? ""
                                   : granted < 8  ? "v0 v0 v0"
                                   : granted < 13 ? "v0 v40 v80"
                                                  : "v0 a0 a21 v40 v80")
            << granted;
    }
}

TEST(Mp4, SaysWhatIsMissing)
{
    const std::string stbl = "GOLT/mp4: _dmx_mp4_parse_stbl: ";
    const struct {
        const char *name;
        std::string changes, expected;
    } cases[] = {
        {"nothing", "stss=1,1 ctts=1,3,0", ""},
        {"no box", "file=", "GOLT/mp4: Header read error\n"},
        {"no file type", "file=moov", "GOLT/mp4: 'ftyp' box not found\n"},
        {"no movie", "file=ftyp,mdat", "GOLT/mp4: _dmx_mp4_parse: expected 0x1 boxes, got 0x0\n"},
        {"text", "order=t",
         "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x1\n"
         "GOLT/mp4: _dmx_mp4_parse_track: expected 0x3 boxes, got 0x1\n"},
        {"no tables", "minf=dinf", "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x3\n"},
        {"a second mdia without its kind",
         "trak=tkhd,mdia,more more:000000186D646961000000106D696E66000000087374626C",
         stbl + "Sync Sample Box 'stss' not found\n" + stbl + "Sync Sample Box 'ctts' not found\n" +
             "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x0\n"},
        {"a clock of another mdia",
         "trak=tkhd,more,mdia mdia=hdlr,minf "
         "more:000000286D646961000000206D646864000000000000000000000000000003E80000007800000000",
         "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x1\n" + stbl +
             "Sync Sample Box 'stss' not found\n" + stbl +
             "Sync Sample Box 'ctts' not found\n"
             "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x6\n"},
        {"64-bit chunk offsets", "stco:", stbl + "expected 0xf boxes, got 0xb\n"},
        {"compact sizes", "stsz:", stbl + "expected 0xf boxes, got 0xd\n"},
        {"no optional table", "stts:",
         stbl + "Sync Sample Box 'stss' not found\n" + stbl + "Sync Sample Box 'stts' not found\n" +
             stbl + "Sync Sample Box 'ctts' not found\n"},
        {"other codec", "entry:0000000868766331",
         "GOLT/mp4: Unsupported Video Codec format 'hvc1'\n" + stbl +
             "expected 0xf boxes, got 0x0\n"},
        {"other audio", "order=a audio:000000084F707573",
         "GOLT/mp4: _dmx_mp4_parse_stsd: Audio format: 'Opus' unsupported\n"},
        {"no esds", "order=a audio:000000246D703461" + std::string(56, '0'),
         stbl + "expected 0xf boxes, got 0x0\n"},
        {"no parameter sets", "avcC:", "GOLT/mp4: 'avcC' box not found\n"},
        {"parameter sets after their entry", "entry=none stbl=stsd,stts,avcC,stsc,stsz,stco",
         "GOLT/mp4: 'avcC' box not found\n"},
        {"short parameter sets", "avcC:000000096176634301",
         "GOLT/mp4: Couldn't alloc -4 bytes for 'avcC' header\n"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        const std::string printed = Demuxer(Movie().change(row.changes).build()).printed;
        EXPECT_EQ(printed.substr(0, row.expected.size()), row.expected);
        EXPECT_EQ(printed.empty(), row.expected.empty());
    }
}

// What a cut through a field prints: each walker that misses a box says so, the one with the field
// doesn't.
TEST(Mp4, SaysNothingOfAFieldThatIsCut)
{
    const std::string prefix = "GOLT/mp4: _dmx_mp4_parse_";
    const std::string track = prefix + "track: expected 0x3 boxes, got 0x1\n";
    const std::string media = prefix + "mdia: expected 0x7 boxes, got 0x3\n" + track;
    const std::string tables = prefix + "stbl: expected 0xf boxes, got 0x0\n" + media;
    const struct {
        const char *order, *type;
        std::ptrdiff_t field;  // from the type of its box on
        std::string printed;
    } rows[] = {
        {"v", "tkhd", 16, ""},
        {"v", "mdhd", 16, track},
        {"v", "mdhd", 20, track},
        {"v", "hdlr", 12, track},
        {"v", "stsz", 8, media},
        {"v", "stsz", 12, media},
        {"v", "stsz", 16, media},
        {"v", "avc1", -4, tables},
        {"v", "avc1", 28, tables},
        {"v", "avc1", 30, tables},
        {"v", "avc1", 32, tables},
        {"v", "avc1", 36, tables},
        {"v", "avcC", 9, tables},
        {"a", "mp4a", 20, tables},
        {"a", "mp4a", 28, tables},
        {"a", "esds", 8, tables},
        {"a", "esds", 270, prefix + "stsd: Audio format: AAC\n" + tables},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.type + std::to_string(row.field));
        Movie movie;
        movie.order = row.order;
        movie.a.dsi.resize(250);  // goes on after the bytes that are read first
        Bytes file = movie.build();
        const Bytes type = text(row.type);
        const auto at = std::find_end(file.begin(), file.end(), type.begin(), type.end());
        file.erase(at + row.field + 1, file.end());
        EXPECT_EQ(Demuxer(file).printed, row.printed);
    }
}

TEST(Mp4, ReportsTheAudioFormat)
{
    const struct {
        const char *format, *entry;
        uint8_t object_type;
        const char *dsi;
        GOLT_codecs_t codec;
        uint32_t rate;
    } rows[] = {
        {"AAC", "mp4a", 0x40, "1210", GOLT_ACODEC_AAC, 44100},
        {"AAC", "mp4a", 0x40, "1690", GOLT_ACODEC_AAC, 0},            // reserved index
        {"AAC", "mp4a", 0x40, "1780BB8080", GOLT_ACODEC_AAC, 96001},  // rate in full
        {"AAC", "mp4a", 0x40, "F90C", GOLT_ACODEC_AAC, 24000},        // escaped type
        {"AAC", "mp4a", 0x40, "F91E017703", GOLT_ACODEC_AAC, 48001},  // escaped type, rate in full
        {"AAC", "mp4a", 0x40, "", GOLT_ACODEC_AAC, 32000},            // the sample entry's
        {"MP3", "mp4a", 0x6B, "", GOLT_ACODEC_MP3, 32000},
        {"", "mp4a", 0xDD, "", GOLT_CODEC_UNKNOWN, 32000},
        {"AC3", "ac-3", 0, "", GOLT_ACODEC_AC3, 32000},
        {"EAC3", "ec-3", 0, "", GOLT_ACODEC_EAC3, 32000},
    };
    const std::string prefix = "GOLT/mp4: _dmx_mp4_parse_stsd: Audio format: ";
    for (const auto &row : rows) {
        for (const bool is_long : {false, true}) {
            Movie movie;
            movie.order = "a";
            movie.a.entry_type = row.entry;
            movie.a.object_type = row.object_type;
            movie.a.dsi = hex(row.dsi);
            movie.a.long_lengths = is_long;
            movie.a.rate = 32000;
            Demuxer demuxer(movie.build());
            SCOPED_TRACE(row.dsi + demuxer.printed);
            EXPECT_EQ(demuxer.info.audioCodec, row.codec);
            EXPECT_EQ(demuxer.info.aud_sampleRate, row.rate);
            EXPECT_EQ(demuxer.info.aud_numChannels, 2u);
            const size_t told = demuxer.printed.find(prefix + row.format + "\n");
            EXPECT_EQ(told, *row.format != '\0' ? 0 : std::string::npos);
        }
    }
}

// ISO/IEC 14496-3, samplingFrequencyIndex.
TEST(Mp4, KnowsTheSamplingFrequenciesOfAac)
{
    uint32_t index = 0;
    for (const uint32_t hertz : {96000u, 88200u, 64000u, 48000u, 44100u, 32000u, 24000u, 22050u,
                                 16000u, 12000u, 11025u, 8000u, 7350u, 0u, 0u}) {
        Movie movie;
        movie.order = "a";
        movie.a.dsi = be16(0x1010 + (index++ << 7));
        EXPECT_EQ(Demuxer(movie.build()).info.aud_sampleRate, hertz);
    }
}

TEST(Mp4, ReportsTheVideoFormat)
{
    const struct {
        uint32_t x, y, numerator, denominator, duration, rate;
    } rows[] = {
        {0x480000, 0x480000, 1, 1, 1000, 3000},
        {0x480000, 0x300000, 3, 2, 2900, 1500},
        {1, 0x480000, 1, 0x480000, 120, 25000},
        {0, 0, 1, 1, 120, 25000},
        {0, 0x480000, 0, 1, 0, 0},
        {0x80000000, 0xFFFFFFFF, 0, 1, 1, 3000000},
    };
    for (const auto &row : rows) {
        Movie movie;
        movie.v.resolution_x = row.x;
        movie.v.resolution_y = row.y;
        movie.v.duration = row.duration;
        const GOLT_streamInfo_t info = Demuxer(movie.build()).info;
        EXPECT_THAT(
            (std::vector<uint32_t>{info.vid_pixelAspectNumerator, info.vid_pixelAspectDenominator,
                                   info.duration, info.vid_framesPerKiloSeconds, info.vid_width,
                                   info.vid_height}),
            ElementsAre(row.numerator, row.denominator, row.duration, row.rate, 320, 240));
    }
}

// Of a second track whose description can't be used only those tables count that come before it.
TEST(Mp4, KeepsTheTablesOfAnEarlierTrack)
{
    const struct {
        std::vector<std::string> second;
        const char *seek;
    } rows[] = {
        {{"stsd", "stss"}, "v(50), a(0)"},
        {{"stss", "stsd"}, "v(75), a(0)"},
    };
    for (const auto &row : rows) {
        Mp4Track first = Mp4Track::video(), second = Mp4Track::video();
        first.samples.resize(100);
        first.stss = {1, 51};
        second.entry_type = "hvc1";
        second.stss = {1, 76};
        second.order["stbl"] = row.second;
        Demuxer demuxer(Mp4File().add(first).add(second).build());
        EXPECT_EQ(demuxer.info.videoCodec, GOLT_VCODEC_H264);
        EXPECT_EQ(demuxer.seek(400), std::string("GOLT/mp4: seek: ") + row.seek + "\n");
        EXPECT_EQ(demuxer.frames()[0].time_ms, row.second[0] == "stsd" ? 2000u : 3000u);
    }
}

// Where one of three tables is missing, the samples stay where they were.
TEST(Mp4, PlacesSamplesByTheTablesOfOneTrack)
{
    for (const char *table : {"stsc", "stsz"}) {
        Mp4Track first = Mp4Track::video(), second = Mp4Track::video();
        first.sample(nal({0x41, 1}));
        second.sample(nal({0x41, 2}));
        second.order["stbl"] = {"stsd", table, "stco"};
        const Demuxer demuxer(Mp4File().add(first).add(second).build());
        EXPECT_EQ(demuxer.frames()[0].data.back(), 1) << table;
    }
}

TEST(Mp4, KeepsTheValueOfAFieldThatIsCut)
{
    Mp4Track first = Mp4Track::video(), second = Mp4Track::video();
    second.resolution_x = 0x12345678;
    Mp4File file;
    file.order = {"ftyp", "mdat", "moov"};
    Bytes cut = file.add(first).add(second).build();
    std::set<uint32_t> seen;
    for (; !cut.empty(); cut.pop_back())
        seen.insert(Demuxer(cut).info.vid_pixelAspectNumerator);
    EXPECT_THAT(seen, ElementsAre(0, 1, 0x12345678 / 72, 0x480000, 0x12345678));
}

}  // namespace
