#include "GOLT.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "dmx_m2ts.h"
#include "dmx_mkv.h"
#include "dmx_mp3.h"
#include "dmx_mp4.h"
#include "ext_aac.h"
#include "ext_dd.h"
#include "ext_h264.h"
#include "ext_mp3.h"
#include "heap.h"
#include "host_double.h"
#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"
#include "rmx_mpeg2ts.h"
#include "surface.h"

using namespace PELA;
using ::testing::ElementsAre;

namespace {

typedef MediaBuffer::ContentInfo Info;

static_assert(offsetof(GOLT_frame_t, ui4_size) == (sizeof(void *) == 8 ? 24 : 16), "order");
static_assert(offsetof(GOLT_streamInfo_t, vid_dimensionality) == 44, "order");

// A host compiled elsewhere calls by slot. In the Itanium C++ ABI a pointer to a virtual member
// holds the place in the table of functions, with or without a mark in the lowest bit.
template <typename... Members> std::vector<size_t> slots_of(Members... members)
{
    const auto slot = [](auto member) {
        size_t place = 0;
        memcpy(&place, &member, sizeof place);
        return (place & ~size_t{1}) / sizeof(void *);
    };
    return {slot(members)...};
}

TEST(Abi, KeepsTheSlotOrder)
{
    typedef RemuxerDriver Remuxer;
    EXPECT_THAT(slots_of(&Remuxer::createNewFrame, &Remuxer::destroyFrame, &Remuxer::createDemuxer,
                         &Remuxer::destroyDemuxer, &Remuxer::createMuxer, &Remuxer::destroyMuxer),
                ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_THAT(slots_of(&AVDemuxer::isValid, &AVDemuxer::readFrame, &AVDemuxer::seekToBytes,
                         &AVDemuxer::seekToTime),
                ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(slots_of(&AVMuxer::isValid, &AVMuxer::getPts, &AVMuxer::writeHeader,
                         &AVMuxer::writeTrailer, &AVMuxer::convertFrame, &AVMuxer::writeFrame,
                         &AVMuxer::getContentInfo),
                ElementsAre(0, 1, 2, 3, 4, 5, 6));
    EXPECT_THAT(slots_of(&AVDemuxer::Listener::read, &AVDemuxer::Listener::seek),
                ElementsAre(0, 1));
}

Bytes m2ts_file()
{
    Bytes file;
    for (uint8_t i = 0; i < 5; ++i)
        file += be32(i) + hex("47") + Bytes(187, i);
    return file;
}

Bytes mp4_file()
{
    Mp4Track video = Mp4Track::video(), audio = Mp4Track::audio();
    video.samples.assign(10, nal(Bytes(50)));
    audio.samples.assign(10, Bytes(20));
    return Mp4File().add(video).add(audio).build();
}

// A host with one source and one sink, which the objects made last outlive.
struct Host {
    Driver driver;
    std::unique_ptr<Source> source;
    std::unique_ptr<Sink> sink = std::make_unique<Sink>();
    IAVDemuxer demux;
    IAVMuxer mux;

    Host(const char *format, const Bytes &file)
        : source(std::make_unique<Source>(file))
        , demux(driver->createDemuxer(format, source.get(), source->size()))
        , mux(driver->createMuxer(CONTAINER_TS, demux, sink.get(), false))
    {
    }
    ~Host()
    {
        driver->destroyMuxer(mux);
        driver->destroyDemuxer(demux);
    }
};

TEST(FormatTable, KnowsItsNamesWholeAndInTheirCase)
{
    Driver driver;
    Source source(Bytes(10));
    const auto known = [&](const char *name) {
        IAVDemuxer demux = driver->createDemuxer(name, &source, source.size());
        driver->destroyDemuxer(demux);
        return demux != nullptr;
    };
    for (const char *name : {"m2ts", "video/ts", "mp3", "audio/mpeg", "mp4", "m4a", "m4v", "mov",
                             "3gp", "video/mp4", "audio/mp4", "mkv", "mka", "mk3d",
                             "audio/x-matroska", "video/x-matroska", "video/x-matroska-3d"})
        EXPECT_TRUE(known(name)) << name;
    for (const char *name : {"MP4", "mp", "mp4a", "", "ts"})
        EXPECT_FALSE(known(name)) << name;
    EXPECT_FALSE(known(nullptr));
    EXPECT_EQ(driver->createDemuxer("mp4", nullptr, 10), nullptr);
}

TEST(Demuxer, ThatRefusesItsFileIsInvalidAndGetsNoMuxer)
{
    for (const char *format : {"m2ts", "mp4"}) {
        Host host(format, Bytes(1000));
        EXPECT_FALSE(host.demux->isValid());
        EXPECT_EQ(host.mux, nullptr);
        const int calls = host.source->reads + host.source->seeks;
        IAVFrame frame = host.driver->createNewFrame();
        EXPECT_FALSE(host.demux->readFrame(frame));
        EXPECT_FALSE(host.demux->seekToTime(0) || host.demux->seekToBytes(0));
        EXPECT_EQ(host.source->reads + host.source->seeks, calls) << "nothing reaches the module";
        host.driver->destroyFrame(frame);
    }
}

TEST(Muxer, DescribesTheStreamInTheHostsTerms)
{
    Host host("mp4", mp4_file());
    EXPECT_EQ(host.driver->createMuxer(CONTAINER_MP4, host.demux, nullptr, false), nullptr);
    EXPECT_EQ(host.driver->createMuxer(CONTAINER_TS, nullptr, nullptr, false), nullptr);
    ASSERT_TRUE(host.mux->isValid());
    const Info expected = {CONTAINER_TS,
                           AUDIO_CODEC_AAC,
                           0x101,
                           VIDEO_CODEC_H264,
                           0x100,
                           MediaBuffer::ASPECT_INFO_ENCODED,
                           400,
                           320,
                           240,
                           1,
                           1,
                           0,
                           nullptr,
                           nullptr,
                           false,
                           0,
                           0,
                           2,
                           48000,
                           25000,
                           MediaBuffer::DIM_2D};
    Info info;
    memset(static_cast<void *>(&info), 0xA5, sizeof info);
    ASSERT_TRUE(host.mux->getContentInfo(&info));
    EXPECT_EQ(memcmp(&info, &expected, offsetof(Info, isEncryped) + 1), 0);
    EXPECT_EQ(memcmp(&info.pingPeriod, &expected.pingPeriod, 6 * sizeof(uint32_t)), 0);

    uint32_t pts = 0;
    EXPECT_FALSE(host.mux->getContentInfo(nullptr) || host.mux->getPts(nullptr, pts) ||
                 host.mux->writeFrame(nullptr) || host.mux->convertFrame(nullptr, true));
    EXPECT_TRUE(host.mux->writeHeader() && host.mux->writeTrailer());
}

TEST(Frames, StayWholeUntilTheyAreDestroyed)
{
    const Bytes expected = remux_file("m2ts", m2ts_file());
    Host host("m2ts", m2ts_file());
    std::vector<IAVFrame> frames;
    do {
        frames.push_back(host.driver->createNewFrame());
    } while (host.demux->readFrame(frames.back()));
    ASSERT_EQ(frames.size(), 5u + 1);
    Info info;
    ASSERT_TRUE(host.mux->getContentInfo(&info));
    EXPECT_TRUE(info.audioCodec == AUDIO_CODEC_UNKNOWN && info.videoCodec == VIDEO_CODEC_UNKNOWN);
    for (IAVFrame frame : frames) {
        if (frame != frames.back()) host.mux->writeFrame(frame);
        host.driver->destroyFrame(frame);
    }
    EXPECT_TRUE(host.sink->stream == expected);
}

// For whoever drives a module without the driver.
TEST(Callbacks, LeadToTheHostAndDoWithoutOne)
{
    uint8_t bytes[4] = {};
    EXPECT_EQ(GOLT_DMX::readProc(nullptr, bytes, 4), 0u);
    EXPECT_EQ(GOLT_DMX::seekProc(nullptr, 0), -1);
    EXPECT_EQ(GOLT_RMX::writerProc(nullptr, bytes, 4), 0u);
    Source source(hex("01020304"));
    Sink sink;
    TCache cache(&source, 4);
    EXPECT_EQ(GOLT_DMX::seekProc(&cache, 1), 0);
    EXPECT_EQ(GOLT_DMX::readProc(&cache, bytes, 4), 3u);
    EXPECT_EQ(GOLT_RMX::writerProc(static_cast<AVMuxer::Listener *>(&sink), bytes, 3), 3u);
    EXPECT_EQ(sink.stream, hex("020304"));
}

TEST(Remap, KnowsTheNamedValuesAlone)
{
    const auto audio = [](int codec) { return GOLT_RMX::remapAudioCodec(GOLT_codecs_t(codec)); };
    const auto video = [](int codec) { return GOLT_RMX::remapVideoCodec(GOLT_codecs_t(codec)); };
    EXPECT_THAT((std::vector<AudioCodecs>{audio(99), audio(100), audio(101), audio(102), audio(103),
                                          audio(104), audio(105)}),
                ElementsAre(AUDIO_CODEC_UNKNOWN, AUDIO_CODEC_UNKNOWN, AUDIO_CODEC_MP3,
                            AUDIO_CODEC_AAC, AUDIO_CODEC_DD, AUDIO_CODEC_DDP, AUDIO_CODEC_UNKNOWN));
    EXPECT_THAT((std::vector<VideoCodecs>{video(109), video(110), video(111), video(112),
                                          video(113), video(1)}),
                ElementsAre(VIDEO_CODEC_UNKNOWN, VIDEO_CODEC_UNKNOWN, VIDEO_CODEC_MPEG2,
                            VIDEO_CODEC_H264, VIDEO_CODEC_UNKNOWN, VIDEO_CODEC_UNKNOWN));
    EXPECT_EQ(GOLT_RMX::remapARInfo(GOLT_AR_NORMAL_WITH_BLACK_BARS),
              MediaBuffer::ASPECT_NORMAL_WITH_BLACK_BARS);
    EXPECT_EQ(GOLT_RMX::remapDimInfo(GOLT_DIM_3D_RIGHT_THEN_LEFT),
              MediaBuffer::DIM_3D_RIGHT_THEN_LEFT);
}

TEST(Rows, OfTheTableServeAnObjectByThemselves)
{
    GOLT_DMX_handler_t row = GOLT::g_dmx_handlers[0];
    ASSERT_STREQ(row.format, "m2ts");
    Source source(m2ts_file());
    const GOLT_DMX demux(&row, &source, source.size());
    EXPECT_TRUE(demux.isValid());
    EXPECT_EQ(GOLT::g_dmx_handlers[4].format, nullptr);
}

// The later of two objects that share a module's one context wins; what is left of the first
// touches nothing that is gone.
TEST(SecondObject, LeavesTheFirstHarmless)
{
    Host first("mp4", mp4_file());
    auto source = std::make_unique<Source>(mp4_file());
    auto sink = std::make_unique<Sink>();
    IAVDemuxer demux = first.driver->createDemuxer("mp4", source.get(), 0);
    IAVMuxer mux = first.driver->createMuxer(CONTAINER_TS, demux, sink.get(), false);
    IAVFrame frame = first.driver->createNewFrame();
    ASSERT_TRUE(demux->readFrame(frame));
    EXPECT_FALSE(first.mux->writeFrame(frame));
    EXPECT_TRUE(mux->writeFrame(frame));
    first.driver->destroyMuxer(mux);
    first.driver->destroyDemuxer(demux);
    source.reset();
    sink.reset();
    EXPECT_FALSE(first.mux->writeFrame(frame));
    first.driver->destroyFrame(frame);
    frame = first.driver->createNewFrame();
    EXPECT_FALSE(first.demux->readFrame(frame));
    first.driver->destroyFrame(frame);
    EXPECT_TRUE(first.sink->stream.empty());
}

TEST(Objects, AreDestroyedInAnyOrder)
{
    std::string order = "dfm";  // demuxer, frame, muxer
    do {
        SCOPED_TRACE(order);
        Driver driver;
        Source source(mp4_file());
        Sink sink;
        IAVDemuxer demux = driver->createDemuxer("mp4", &source, source.size());
        IAVMuxer mux = driver->createMuxer(CONTAINER_TS, demux, &sink, false);
        IAVFrame frame = driver->createNewFrame();
        EXPECT_TRUE(demux->readFrame(frame));
        for (const char next : order) {
            if (next == 'd') driver->destroyDemuxer(demux);
            if (next == 'f') driver->destroyFrame(frame);
            if (next == 'm') driver->destroyMuxer(mux);
            const bool f_left = next == 'd' && order[0] == 'd';
            EXPECT_EQ(f_left && mux->writeFrame(frame), f_left);
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

// The whole way through the library, however little memory it gets; the number of frames.
int remux_watched(const char *format, const Bytes &file)
{
    Source source(file);
    const LibraryCall library;
    IRemuxerDriver driver = GOLT_CreateRemuxerDriver();
    if (driver == nullptr) return 0;
    IAVDemuxer demux = driver->createDemuxer(format, &source, source.size());
    IAVMuxer mux = driver->createMuxer(CONTAINER_TS, demux, nullptr, false);
    int frames = 0;
    for (const uint32_t time_ms : {40u, 0u}) {
        for (bool f_more = demux != nullptr; f_more;) {
            IAVFrame frame = driver->createNewFrame();
            f_more = demux->readFrame(frame);
            frames += f_more ? 1 : 0;
            EXPECT_EQ(f_more && mux != nullptr && mux->writeFrame(frame), f_more && mux != nullptr);
            if (frame != nullptr) driver->destroyFrame(frame);
        }
        if (demux != nullptr) demux->seekToTime(time_ms);
    }
    driver->destroyMuxer(mux);
    driver->destroyDemuxer(demux);
    GOLT_DestroyRemuxerDriver();
    return frames;
}

TEST(NoMemory, LeavesNoFrameBehindThePool)
{
    const Driver driver;
    std::vector<IAVFrame> frames;
    frames.reserve(99);
    testing::internal::CaptureStdout();
    const LibraryCall library;
    g_heap.granted = 0;
    while (frames.size() < 99 && (frames.empty() || frames.back() != nullptr))
        frames.push_back(driver->createNewFrame());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "GOLT: ****** COULD NOT ALLOC FRAME\n");
    EXPECT_EQ(frames.size(), 8u);
    frames.pop_back();
    for (const IAVFrame frame : frames)
        driver->destroyFrame(frame);
    g_heap = {};
}

TEST(NoMemory, EndsEarlyAndGivesAllBack)
{
    const std::string mkv =
        "t1['V_MPEG4/ISO/AVC'] t2['A_AAC'] k C0 l02.01.01.0102 v0(65) C40 v0(41) q90";
    const struct {
        const char *format;
        Bytes file;
    } rows[] = {{"m2ts", m2ts_file()},
                {"mp3", Mp3().frames(9).file},
                {"mp4", mp4_file()},
                {"mkv", MkvFile(mkv).build()}};
    for (const auto &row : rows) {
        g_heap = {};
        const int frames = remux_watched(row.format, row.file);
        EXPECT_GT(frames, 4);
        // One request after the other is the first that is refused, or the only one.
        for (const int refused : {1, INT_MAX}) {
            int granted = 0;
            do {
                SCOPED_TRACE(row.format + (" " + std::to_string(granted)));
                g_TCacheEnabled = true;
                g_heap = {granted, refused};
                EXPECT_LE(remux_watched(row.format, row.file), granted == 0 ? 0 : frames);
                EXPECT_EQ(g_heap.held, 0u);
                ++granted;
            } while (g_heap.granted == 0);
        }
    }
    g_TCacheEnabled = true;
    g_heap = {};
}

TEST(Extractors, ReportSuccessAndLeaveTheFrameAlone)
{
    const struct {
        bool (*start)(uint8_t *, uint32_t);
        bool (*reset)();
        bool (*read)(GOLT_frame_t *);
    } rows[] = {
        {GOLT_EXT_AACStart, GOLT_EXT_AACReset, GOLT_EXT_AACReadSingleFrame},
        {GOLT_EXT_DDStart, GOLT_EXT_DDReset, GOLT_EXT_DDReadSingleFrame},
        {GOLT_EXT_H264Start, GOLT_EXT_H264Reset, GOLT_EXT_H264ReadSingleFrame},
        {GOLT_EXT_MP3Start, GOLT_EXT_MP3Reset, GOLT_EXT_MP3ReadSingleFrame},
    };
    for (const auto &row : rows) {
        uint8_t byte = 7;
        GOLT_frame_t frame = {1, 2, &byte, 1};
        EXPECT_TRUE(row.start(&byte, 1) && row.read(&frame) && row.reset());
        EXPECT_TRUE(frame.ui8_timestamp == 1 && frame.ui4_frametype == 2 &&
                    frame.pb_data == &byte && frame.ui4_size == 1 && byte == 7);
    }
}

TEST(DriverExports, WorkInAnyOrder)
{
    GOLT_DestroyRemuxerDriver();
    EXPECT_STREQ(GOLT_version(), "Halvern GOLT lib v0.8");
    testing::internal::CaptureStdout();
    ASSERT_NE(GOLT_CreateRemuxerDriver(), nullptr);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::MatchesRegex("GOLT: Halvern GOLT lib v0.8, built: "
                                        "... .. ...., ..:..:..\n"));
    IRemuxerDriver second = GOLT_CreateRemuxerDriver();
    second->destroyFrame(second->createNewFrame());
    GOLT_DestroyRemuxerDriver();
    GOLT_DestroyRemuxerDriver();
}

}  // namespace
