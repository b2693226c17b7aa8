#include <gtest/gtest.h>

#include "heap.h"
#include "mp4_movie.h"

namespace {

// A file that goes on with zeros, up to 4 GiB or as far as it is said to.
struct SparseSource {
    Bytes file;
    uint64_t size = uint64_t{1} << 32;
    uint64_t at = 0;
    int seeks = 0;
    std::vector<uint32_t> reads;

    static uint32_t read_proc(void *handle, uint8_t *buffer, uint32_t size)
    {
        auto &source = *static_cast<SparseSource *>(handle);
        source.reads.push_back(size);
        const uint64_t left = source.size - std::min(source.at, source.size);
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(size, left));
        const auto held = static_cast<uint32_t>(std::min<uint64_t>(
            count, source.file.size() - std::min<uint64_t>(source.at, source.file.size())));
        if (held != 0) memcpy(buffer, source.file.data() + source.at, held);
        memset(buffer + held, 0, count - held);
        source.at += count;
        return count;
    }

    static int32_t seek_proc(void *handle, int64_t offset)
    {
        auto &source = *static_cast<SparseSource *>(handle);
        source.at = static_cast<uint64_t>(offset);
        ++source.seeks;
        return 0;
    }
};

TEST(Mp4, DeliversAudioFirstFromTheSamePlace)
{
    Movie movie;
    movie.order = "va";
    movie.v.put["stco"] = movie.a.put["stco"] = table_box("stco", 1, {48});
    EXPECT_EQ(Demuxer(movie.build()).times(), "a0 v0 a21 v40 v80");
}

TEST(Mp4, ReadsNoFurtherThanItNeedsAndEndsWhereTheFileIsCut)
{
    Movie movie;
    movie.order = "va";
    const Bytes whole = movie.build();
    Demuxer first(whole);
    EXPECT_EQ(first.source.position(), first.source.size() - (3 * 6 + 2 * 2)) << "header of mdat";
    const std::string plain = first.times();
    for (size_t size = 0; size < whole.size(); ++size) {
        Bytes cut = whole;
        cut.resize(size);
        Demuxer demuxer(cut);
        EXPECT_EQ(demuxer.valid, size >= 24 + 8) << "ftyp and the header of moov";
        const std::string got = demuxer.times();
        EXPECT_EQ(got, plain.substr(0, got.size())) << size;
    }
    EXPECT_EQ(Demuxer(movie.change("file=ftyp,mdat,moov").build()).source.position(), 8 + 16 + 4)
        << "back to mdat";
}

TEST(Mp4, PutsParameterSetsBeforeTheFirstFrameOnly)
{
    Movie movie;
    movie.v.samples = {nal({0x65, 1}) + nal({0x65, 2, 3}), nal({0x41})};
    movie.v.sps = {pattern(20, 3), pattern(5, 4)};
    movie.v.pps = {pattern(4, 5)};
    const Bytes header = START + movie.v.sps[0] + START + movie.v.sps[1] + START + movie.v.pps[0];
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.seek(40), "GOLT/mp4: seek: v(1), a(0)\n");
    {
        const LibraryCall library;
        g_heap.granted = 0;
        GOLT_frame_t frame = {};
        EXPECT_FALSE(GOLT_DMX_MP4ReadFrame(&frame));
    }
    g_heap = {};
    EXPECT_EQ(demuxer.frames()[0].data, header + hex("00000001 41"));
    EXPECT_EQ(demuxer.seek(0), "GOLT/mp4: seek: v(0), a(0)\n");
    EXPECT_EQ(demuxer.frames()[0].data, hex("00000001 6501 00000001 650203"));
}

TEST(Mp4, RewritesWrongLengthsInsideTheirBlock)
{
    const struct {
        const char *sample, *expected;
    } rows[] = {
        {"00000063 6501", "00000001 6501"},
        {"FFFFFFFF 6501", "00000001 6501"},
        {"00000002 6501 0000", "00000001 6501 0000"},
        {"00000000 00000000", "00000001 00000001"},
        {"00000003 6501", "00000001 6501"},
        {"00000002 6501 00000001 41 FFFFFF", "00000001 6501 00000001 41 FFFFFF"},
        {"", ""},
    };
    Movie movie;
    // The second set runs over its block: it is left out, and so is all after it.
    movie.v.put["avcC"] = box("avcC", hex("0142001EFF E2 0002 6742 0009 6743 01 0001 68"));
    for (const auto &row : rows) {
        movie.v.samples = {hex(row.sample)};
        EXPECT_EQ(Demuxer(movie.build()).frames()[0].data, START + hex("6742") + hex(row.expected));
    }
}

TEST(Mp4, SeeksToTheNextSyncSample)
{
    Movie movie;
    movie.order = "va";
    movie.v.samples.resize(750);
    movie.v.stss = {1, 251, 501};
    // Of a millisecond each: the last time is an index that is just too large for 64 bits.
    movie.a.samples.resize(26000);
    movie.a.time_scale = 1000;
    movie.a.delta = 1;
    Demuxer demuxer(movie.build());
    const struct {
        uint64_t time_ms;
        const char *printed;
    } rows[] = {
        {0, "v(0), a(0)"},           {40, "v(250), a(10000)"},     {12000, "v(500), a(20000)"},
        {24000, "v(600), a(24000)"}, {90000, "v(2250), a(90000)"}, {UINT64_MAX, "v(-1), a(-1)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(demuxer.seek(row.time_ms), std::string("GOLT/mp4: seek: ") + row.printed + "\n");
    EXPECT_TRUE(demuxer.frames().empty());
    demuxer.seek(24000);
    EXPECT_TRUE(GOLT_DMX_MP4SeekToBytes(0));
    EXPECT_EQ(demuxer.frames().size(), 150u + 2000u) << "a seek brings an ended stream back";
}

// A large sample takes one seek, and memory as its bytes come.
TEST(Mp4, ReadsLargeSamples)
{
    constexpr uint32_t MIB = 1 << 20;
    const std::vector<uint32_t> in_steps = {MIB, MIB, 2 * MIB, 4 * MIB, 8 * MIB, MIB + 4};
    const struct {
        const char *name;
        uint32_t size, there;
        bool f_ok;
        std::vector<uint32_t> reads;
        size_t most;
    } rows[] = {
        {"in one read", 16 * MIB, 16 * MIB, true, {16 * MIB}, 16 * MIB},
        {"in steps", 17 * MIB + 4, 17 * MIB + 4, true, in_steps, 33 * MIB + 4},
        {"one byte short", 3 * MIB, 3 * MIB - 1, false, {3 * MIB}, 3 * MIB},
        {"soon at the end", 64 * MIB, MIB + 9, false, {MIB, MIB}, 3 * MIB},
        {"at once at the end", 64 * MIB, 0, false, {MIB}, MIB},
        {"too large", 64 * MIB + 1, 64 * MIB + 1, false, {}, 0},
    };
    Movie movie;
    movie.order = "a";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        movie.a.put["stsz"] = table_box("stsz", row.size, {1});
        SparseSource source;
        source.file = movie.build();
        const uint64_t start = source.file.size() - 4;
        ASSERT_TRUE(GOLT_DMX_MP4Init(SparseSource::read_proc, SparseSource::seek_proc, &source));
        source.size = start + row.there;
        source.reads.clear();
        source.seeks = 0;
        g_heap = {};
        GOLT_frame_t frame = {};
        {
            const LibraryCall call;
            EXPECT_EQ(GOLT_DMX_MP4ReadFrame(&frame), row.f_ok);
        }
        EXPECT_EQ(source.reads, row.reads);
        EXPECT_EQ(source.seeks, row.reads.empty() ? 0 : 1);
        EXPECT_GE(g_heap.most, row.most);
        EXPECT_LE(g_heap.most, row.most + 65536);
        EXPECT_EQ(frame.pb_data != nullptr, !row.reads.empty());
        EXPECT_EQ(frame.ui4_size == row.size, row.f_ok || row.size <= 16 * MIB);
        GOLT_freeMem(frame.pb_data);
        GOLT_DMX_MP4Destroy();
    }
}

// The third sample of a chunk starts past 4 GiB: the track ends, though there is one more chunk.
TEST(Mp4, ReachesTheLastByteBelow4GiB)
{
    Movie movie;
    movie.order = "a";
    movie.a.samples.resize(6, {1, 2});
    movie.a.put["stsc"] = table_box("stsc", 1, {1, 3, 1});
    SparseSource source;
    for (const uint32_t offset : {0xFFFFFFFC, 0xFFFFFFFD}) {
        movie.a.put["stco"] = table_box("stco", 2, {offset, 48});
        source.file = movie.build();
        ASSERT_TRUE(GOLT_DMX_MP4Init(SparseSource::read_proc, SparseSource::seek_proc, &source));
        EXPECT_EQ(Demuxer::times(), offset == 0xFFFFFFFC ? "a0 a21" : "a0");
        GOLT_DMX_MP4Destroy();
    }
}

// A host that delivers little at a time and can't seek. After the cache a seek succeeds all the same,
// and what is read is what merely comes next.
struct StreamSource : Source {
    using Source::Source;
    int read(uint8_t *buffer, int size) override
    {
        return Source::read(buffer, std::min(size, 64));
    }
    int64_t seek(int64_t, int) override { return -1; }
};

TEST(Mp4, TakesNoClaimsOfAHostThatRefusesSeeks)
{
    for (const char *claims : {"stsz=0x10000000,3", "stsz=1,3 stsc=1,1,-9,1 stts=2,1,1,-1,1",
                               "stss=0x20000000,1", "avcC:3000000061766343"}) {
        SCOPED_TRACE(claims);
        Movie movie;
        movie.v.samples = {pattern(100000, 1)};
        StreamSource source(movie.change(claims).build());
        Driver driver;
        g_heap = {};
        {
            const LibraryCall call;
            PELA::IAVDemuxer demux = driver->createDemuxer("mp4", &source, source.size());
            PELA::IAVFrame frame = driver->createNewFrame();
            demux->readFrame(frame);
            driver->destroyFrame(frame);
            driver->destroyDemuxer(demux);
        }
        EXPECT_LT(g_heap.most, 20u << 20);
    }
}

// A frame that couldn't be read has its size all the same; what hasn't come of it is cleared.
TEST(Mp4, ClearsWhatHasNotCome)
{
    GOLT_memInit();
    Movie movie;
    movie.v.samples = {nal(Bytes(96, 0x65))};
    Demuxer demuxer(movie.build());
    for (const std::string fault : {"a cut", "no seek", "a lie"}) {
        uint8_t *pb_used = GOLT_allocMem(1024);
        memset(pb_used, 0xEE, 1024);
        GOLT_freeMem(pb_used);
        demuxer.source.fail_from = demuxer.source.size() - 90;
        demuxer.source.refuse_seeks = fault == "no seek";
        if (fault == "a lie") demuxer.source.script = {INT_MAX};
        GOLT_frame_t frame = {};
        EXPECT_FALSE(GOLT_DMX_MP4ReadFrame(&frame));
        EXPECT_EQ(Bytes(frame.pb_data, frame.pb_data + frame.ui4_size),
                  fault == "a cut" ? START + movie.v.sps[0] + START + movie.v.pps[0] +
                                         hex("00000060 656565656565") + Bytes(90)
                                   : Bytes(100));
        GOLT_freeMem(frame.pb_data);
    }
    GOLT_memClose();
}

TEST(Mp4, TriesAFrameAgainThatCouldNotBeRead)
{
    Demuxer demuxer(Movie().build());
    demuxer.source.fail_from = demuxer.source.size() - 6;
    EXPECT_EQ(demuxer.times(), "v0 v40");
    demuxer.source.fail_from = -1;
    demuxer.source.refuse_seeks = true;
    EXPECT_EQ(demuxer.times(), "");
    demuxer.source.refuse_seeks = false;
    EXPECT_EQ(demuxer.times(), "v80");
}

TEST(Mp4, ForgetsASourceThatIsGivenUp)
{
    Demuxer demuxer(Movie().change("order=va").build());
    Source other(Movie().change("order=a").build());
    {
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MP4Init(Source::read_proc, Source::seek_proc, &other));
    }
    EXPECT_EQ(demuxer.times(), "a0 a21");
}

}  // namespace
