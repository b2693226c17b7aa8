#include "GOLT.h"

#include <gtest/gtest.h>

#include "golt_mem.h"
#include "host_double.h"
#include "mp4_builder.h"

using namespace PELA;

namespace {

// Binary interface: a host compiled elsewhere calls by slot. Each class below numbers its functions in the
// order that the interface has to have; the calls go through the interface.

template <typename Interface> int slot_called(Interface *object, int slot)
{
    // The Itanium C++ ABI: the object starts with a pointer to its table of functions.
    typedef int (*function)(Interface *);
    function const *table = nullptr;
    memcpy(&table, static_cast<void *>(object), sizeof table);
    return table[slot](object);
}

struct NumberedDriver : RemuxerDriver {
    int called = -1;
    IAVFrame createNewFrame() override { return called = 0, nullptr; }
    void destroyFrame(IAVFrame) override { called = 1; }
    IAVDemuxer createDemuxer(const char *, AVDemuxer::Listener *, int64_t) override
    {
        return called = 2, nullptr;
    }
    void destroyDemuxer(IAVDemuxer) override { called = 3; }
    IAVMuxer createMuxer(Containers, IAVDemuxer, AVMuxer::Listener *, bool) override
    {
        return called = 4, nullptr;
    }
    void destroyMuxer(IAVMuxer) override { called = 5; }
};

struct NumberedDemuxer : AVDemuxer {
    mutable int called = -1;
    bool isValid() const override { return called = 0, true; }
    bool readFrame(IAVFrame) override { return called = 1, true; }
    bool seekToBytes(uint64_t) override { return called = 2, true; }
    bool seekToTime(uint32_t) override { return called = 3, true; }
};

struct NumberedMuxer : AVMuxer {
    mutable int called = -1;
    bool isValid() const override { return called = 0, true; }
    bool getPts(IAVFrame, uint32_t &) const override { return called = 1, true; }
    bool writeHeader() override { return called = 2, true; }
    bool writeTrailer() override { return called = 3, true; }
    bool convertFrame(IAVFrame, bool) override { return called = 4, true; }
    bool writeFrame(IAVFrame) override { return called = 5, true; }
    bool getContentInfo(MediaBuffer::ContentInfo *) const override { return called = 6, true; }
};

template <typename Numbered, typename Interface> void expect_slots(int count)
{
    for (int slot = 0; slot < count; ++slot) {
        Numbered object;
        slot_called<Interface>(&object, slot);
        EXPECT_EQ(object.called, slot);
    }
}

TEST(Abi, KeepsTheSlotOrder)
{
    expect_slots<NumberedDriver, RemuxerDriver>(6);
    expect_slots<NumberedDemuxer, AVDemuxer>(4);
    expect_slots<NumberedMuxer, AVMuxer>(7);
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
    const struct {
        const char *name;
        bool known;
    } rows[] = {
        {"m2ts", true},      {"video/ts", true}, {"mp4", true}, {"m4a", true},
        {"m4v", true},       {"mov", true},      {"3gp", true}, {"video/mp4", true},
        {"audio/mp4", true}, {"MP4", false},     {"mp", false}, {"mp4a", false},
        {"", false},         {"ts", false},
    };
    Source source(Bytes(10));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        IAVDemuxer demux = driver->createDemuxer(row.name, &source, source.size());
        EXPECT_EQ(demux != nullptr, row.known);
        driver->destroyDemuxer(demux);
    }
    EXPECT_EQ(driver->createDemuxer(nullptr, &source, 10), nullptr);
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
    EXPECT_EQ(info.containerType, CONTAINER_TS);
    EXPECT_EQ(info.audioCodec, AUDIO_CODEC_AAC);
    EXPECT_EQ(info.videoCodec, VIDEO_CODEC_H264);
    EXPECT_EQ(info.audioPid, 0x101u);
    EXPECT_EQ(info.videoPid, 0x100u);
    EXPECT_EQ(info.duration, 400u);
    EXPECT_EQ(info.width, 320u);
    EXPECT_EQ(info.height, 240u);
    EXPECT_EQ(info.pixelAspectNumerator, 1u);
    EXPECT_EQ(info.framesPerKiloSeconds, 25000u);
    EXPECT_EQ(info.numAudioChannels, 2u);
    EXPECT_EQ(info.audioSampleRate, 48000u);
    EXPECT_EQ(info.offsetTable, nullptr);
    EXPECT_EQ(info.pingPeriodFast, 0u);
    EXPECT_FALSE(info.isEncryped);

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
