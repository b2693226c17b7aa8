#include "GOLT.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "golt_mem.h"
#include "host_double.h"
#include "mp4_builder.h"

using namespace PELA;
using ::testing::ElementsAre;

namespace {

// A host compiled elsewhere calls by slot. In the Itanium C++ ABI a pointer to a virtual member holds
// the place in the table of functions, with or without a mark in the lowest bit.
template <typename Member> size_t slot_of(Member member)
{
    size_t place = 0;
    memcpy(&place, &member, sizeof place);
    return (place & ~size_t{1}) / sizeof(void *);
}

TEST(Abi, KeepsTheSlotOrder)
{
    const size_t driver[] = {
        slot_of(&RemuxerDriver::createNewFrame), slot_of(&RemuxerDriver::destroyFrame),
        slot_of(&RemuxerDriver::createDemuxer),  slot_of(&RemuxerDriver::destroyDemuxer),
        slot_of(&RemuxerDriver::createMuxer),    slot_of(&RemuxerDriver::destroyMuxer)};
    const size_t demuxer[] = {slot_of(&AVDemuxer::isValid), slot_of(&AVDemuxer::readFrame),
                              slot_of(&AVDemuxer::seekToBytes), slot_of(&AVDemuxer::seekToTime)};
    const size_t muxer[] = {slot_of(&AVMuxer::isValid),       slot_of(&AVMuxer::getPts),
                            slot_of(&AVMuxer::writeHeader),   slot_of(&AVMuxer::writeTrailer),
                            slot_of(&AVMuxer::convertFrame),  slot_of(&AVMuxer::writeFrame),
                            slot_of(&AVMuxer::getContentInfo)};
    const size_t source[] = {slot_of(&AVDemuxer::Listener::read),
                             slot_of(&AVDemuxer::Listener::seek)};
    EXPECT_THAT(driver, ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_THAT(demuxer, ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(muxer, ElementsAre(0, 1, 2, 3, 4, 5, 6));
    EXPECT_THAT(source, ElementsAre(0, 1));
}

typedef MediaBuffer::ContentInfo Info;
static_assert(offsetof(GOLT_frame_t, ui4_frametype) == 8 &&
                  offsetof(GOLT_frame_t, ui4_size) == (sizeof(void *) == 8 ? 24 : 16),
              "order");
static_assert(sizeof(GOLT_streamInfo_t) == 48 &&
                  offsetof(GOLT_streamInfo_t, vid_dimensionality) == 44,
              "order");

Bytes m2ts_file(uint32_t packets)
{
    Bytes file;
    for (uint32_t i = 0; i < packets; ++i)
        file += be32(i) + hex("47") + Bytes(187, static_cast<uint8_t>(i));
    return file;
}

Bytes mp4_file()
{
    Mp4Track video = Mp4Track::video();
    Mp4Track audio = Mp4Track::audio();
    for (uint8_t i = 0; i < 10; ++i) {
        video.sample(nal(Bytes(50, i)));
        audio.sample(Bytes(20, i));
    }
    return Mp4File().add(video).add(audio).build();
}

TEST(FormatTable, KnowsItsNamesWholeAndInTheirCase)
{
    Driver driver;
    Source source(Bytes(10));
    const auto known = [&](const char *name) {
        IAVDemuxer demux = driver->createDemuxer(name, &source, source.size());
        driver->destroyDemuxer(demux);
        return demux != nullptr;
    };
    for (const char *name :
         {"m2ts", "video/ts", "mp4", "m4a", "m4v", "mov", "3gp", "video/mp4", "audio/mp4"})
        EXPECT_TRUE(known(name)) << name;
    for (const char *name : {"MP4", "mp", "mp4a", "", "ts"})
        EXPECT_FALSE(known(name)) << name;
    EXPECT_FALSE(known(nullptr));
    EXPECT_EQ(driver->createDemuxer("mp4", nullptr, 10), nullptr);
}

TEST(Demuxer, ThatRefusesItsFileIsInvalidAndGetsNoMuxer)
{
    Driver driver;
    for (const char *format : {"m2ts", "mp4"}) {
        Source source(Bytes(1000));
        IAVDemuxer demux = driver->createDemuxer(format, &source, source.size());
        ASSERT_NE(demux, nullptr);
        EXPECT_FALSE(demux->isValid());
        const int calls = source.reads + source.seeks;
        IAVFrame frame = driver->createNewFrame();
        EXPECT_FALSE(demux->readFrame(frame));
        EXPECT_FALSE(demux->seekToTime(0));
        EXPECT_FALSE(demux->seekToBytes(0));
        EXPECT_EQ(source.reads + source.seeks, calls) << "nothing reaches the module";
        EXPECT_EQ(driver->createMuxer(CONTAINER_TS, demux, nullptr, false), nullptr);
        driver->destroyFrame(frame);
        driver->destroyDemuxer(demux);
    }
}

TEST(Muxer, DescribesTheStreamInTheHostsTerms)
{
    Driver driver;
    Source source(mp4_file());
    IAVDemuxer demux = driver->createDemuxer("mp4", &source, source.size());
    EXPECT_EQ(driver->createMuxer(CONTAINER_MP4, demux, nullptr, false), nullptr);
    EXPECT_EQ(driver->createMuxer(CONTAINER_TS, nullptr, nullptr, false), nullptr);
    IAVMuxer mux = driver->createMuxer(CONTAINER_TS, demux, nullptr, true);
    driver->destroyDemuxer(demux);
    ASSERT_NE(mux, nullptr);
    EXPECT_TRUE(mux->isValid());

    Info info;
    memset(static_cast<void *>(&info), 0xA5, sizeof info);
    ASSERT_TRUE(mux->getContentInfo(&info));
    Info expected = {};
    expected.containerType = CONTAINER_TS;
    expected.audioCodec = AUDIO_CODEC_AAC;
    expected.audioPid = 0x101;
    expected.videoCodec = VIDEO_CODEC_H264;
    expected.videoPid = 0x100;
    expected.duration = 400;
    expected.width = 320;
    expected.height = 240;
    expected.pixelAspectNumerator = expected.pixelAspectDenominator = 1;
    expected.numAudioChannels = 2;
    expected.audioSampleRate = 48000;
    expected.framesPerKiloSeconds = 25000;
    EXPECT_EQ(memcmp(&info, &expected, offsetof(Info, isEncryped)), 0);
    EXPECT_FALSE(info.isEncryped);
    EXPECT_EQ(
        memcmp(&info.pingPeriod, &expected.pingPeriod, sizeof info - offsetof(Info, pingPeriod)),
        0);

    EXPECT_FALSE(mux->getContentInfo(nullptr));
    uint32_t pts = 0;
    EXPECT_FALSE(mux->getPts(nullptr, pts));
    EXPECT_FALSE(mux->writeFrame(nullptr));
    EXPECT_FALSE(mux->convertFrame(nullptr, true));
    EXPECT_TRUE(mux->writeHeader());
    EXPECT_TRUE(mux->writeTrailer());
    driver->destroyMuxer(mux);
}

TEST(Muxer, ReportsUnknownCodecsForATransportStream)
{
    Driver driver;
    Source source(m2ts_file(5));
    Sink sink;
    IAVDemuxer demux = driver->createDemuxer("m2ts", &source, source.size());
    IAVMuxer mux = driver->createMuxer(CONTAINER_TS, demux, &sink, false);
    Info info;
    ASSERT_TRUE(mux->getContentInfo(&info));
    EXPECT_EQ(info.audioCodec, AUDIO_CODEC_UNKNOWN);
    EXPECT_EQ(info.videoCodec, VIDEO_CODEC_UNKNOWN);
    EXPECT_EQ(info.width, 0u);

    // Frames stay whole until they are destroyed, however many the host holds.
    std::vector<IAVFrame> frames;
    IAVFrame next = driver->createNewFrame();
    for (; demux->readFrame(next); next = driver->createNewFrame())
        frames.push_back(next);
    driver->destroyFrame(next);
    ASSERT_EQ(frames.size(), 5u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(mux->writeFrame(frames[i]));
        EXPECT_EQ(sink.stream[i * 188 + 1], i);
        driver->destroyFrame(frames[i]);
    }
    driver->destroyMuxer(mux);
    driver->destroyDemuxer(demux);
}

// The later of two objects that share a module's one context wins; nothing leaks or touches what is gone.
TEST(SecondObject, LeavesTheFirstHarmless)
{
    Driver driver;
    for (const bool first_goes_first : {true, false}) {
        Source first_source(mp4_file());
        auto second_source = std::make_unique<Source>(mp4_file());
        Sink first_sink;
        auto second_sink = std::make_unique<Sink>();
        IAVDemuxer first = driver->createDemuxer("mp4", &first_source, 0);
        IAVMuxer first_mux = driver->createMuxer(CONTAINER_TS, first, &first_sink, false);
        IAVDemuxer second = driver->createDemuxer("mp4", second_source.get(), 0);
        IAVMuxer second_mux = driver->createMuxer(CONTAINER_TS, second, second_sink.get(), false);

        IAVFrame frame = driver->createNewFrame();
        ASSERT_TRUE(second->readFrame(frame));
        EXPECT_FALSE(first_mux->writeFrame(frame));
        EXPECT_TRUE(second_mux->writeFrame(frame));
        EXPECT_FALSE(second_sink->stream.empty());
        driver->destroyFrame(frame);

        if (first_goes_first) {
            driver->destroyMuxer(first_mux);
            driver->destroyDemuxer(first);
        }
        driver->destroyMuxer(second_mux);
        driver->destroyDemuxer(second);
        second_source.reset();
        second_sink.reset();
        if (!first_goes_first) {
            frame = driver->createNewFrame();
            EXPECT_FALSE(first->readFrame(frame));
            EXPECT_FALSE(first_mux->writeFrame(frame));
            driver->destroyFrame(frame);
            driver->destroyMuxer(first_mux);
            driver->destroyDemuxer(first);
        }
        EXPECT_TRUE(first_sink.stream.empty());
    }
}

TEST(DriverExports, WorkInAnyOrder)
{
    GOLT_DestroyRemuxerDriver();
    EXPECT_STREQ(GOLT_version(), "Halvern GOLT lib v0.8");
    testing::internal::CaptureStdout();
    IRemuxerDriver first = GOLT_CreateRemuxerDriver();
    const std::string greeting = testing::internal::GetCapturedStdout();
    EXPECT_EQ(greeting.rfind("GOLT: Halvern GOLT lib v0.8, built: ", 0), 0u) << greeting;
    EXPECT_EQ(greeting.size(),
              std::string("GOLT: Halvern GOLT lib v0.8, built: Aug 24 2011, 11:53:06\n").size());
    ASSERT_NE(first, nullptr);
    IRemuxerDriver second = GOLT_CreateRemuxerDriver();
    ASSERT_NE(second, nullptr);
    IAVFrame frame = second->createNewFrame();
    ASSERT_NE(frame, nullptr);
    second->destroyFrame(frame);
    GOLT_DestroyRemuxerDriver();
    GOLT_DestroyRemuxerDriver();
}

}  // namespace
