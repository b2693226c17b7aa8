// What is counted of the library's packets, and which of them pass.

#include "stream/tally.h"

#include <gtest/gtest.h>

#include "host_double.h"

namespace {

constexpr uint16_t VIDEO_PID = 0x100, AUDIO_PID = 0x101;

PELA::MediaBuffer::ContentInfo content()
{
    PELA::MediaBuffer::ContentInfo info = {};
    info.videoPid = VIDEO_PID;
    info.audioPid = AUDIO_PID;
    info.videoCodec = PELA::VIDEO_CODEC_H264;
    info.audioCodec = PELA::AUDIO_CODEC_DD;
    return info;
}

/// The first packet of a frame as the library writes it: PCR and PTS are its time.
Bytes packet(uint16_t pid, uint64_t time, const Bytes &frame, size_t length)
{
    Bytes pts = {static_cast<uint8_t>(0x21 | (time >> 29 & 0x0E)), static_cast<uint8_t>(time >> 22),
                 static_cast<uint8_t>((time >> 14 & 0xFE) | 1), static_cast<uint8_t>(time >> 7),
                 static_cast<uint8_t>((time << 1 & 0xFE) | 1)};
    const auto low_bit = static_cast<uint32_t>(time & 1);
    Bytes out = hex("47") + be16(0x4000u | pid) + hex("30 07 10") + be(time >> 1, 4) +
                be16(low_bit << 15 | 0x7E00) + hex("000001E0") +
                be16(static_cast<uint32_t>(length + 8)) + hex("808005") + pts + frame;
    out.resize(TS_PACKET_SIZE, 0x55);
    return out;
}

// AC-3 of 48 kHz and 32 kbit/s: 128 bytes, 1536 samples, 2880 ticks.
Bytes audio(uint64_t time)
{
    return packet(AUDIO_PID, time, hex("0B77 0000 00 40"), 128);
}
Bytes picture(uint64_t time)
{
    return packet(VIDEO_PID, time, hex("00000001 65"), 999);
}
Bytes rest(uint16_t pid, uint8_t byte)
{
    Bytes out = hex("47") + be16(pid) + hex("10") + Bytes(184, byte);
    return out;
}

uint64_t pts_of(const Bytes &stream, size_t number)
{
    const uint8_t *field = stream.data() + number * TS_PACKET_SIZE + 12 + 9;
    return time_of_field(uint64_t{field[0]} << 32 | uint64_t{field[1]} << 24 |
                         uint64_t{field[2]} << 16 | uint64_t{field[3]} << 8 | field[4]);
}

void write(Tally &tally, std::initializer_list<Bytes> packets)
{
    for (Bytes bytes : packets)
        tally.write(bytes.data(), static_cast<int>(bytes.size()));
}

TEST(Tally, CountsFramesAndTheirEnds)
{
    Sink sink;
    Tally tally(sink);
    tally.begin(content());
    write(tally, {picture(3600), rest(VIDEO_PID, 1), audio(0), picture(10800), audio(2880),
                  picture(7200)});
    EXPECT_EQ(tally.video().frames, 3u);
    EXPECT_EQ(tally.video().end(), 14400);  // the mean step after the last
    EXPECT_EQ(tally.audio().end(), 2 * 2880);
    EXPECT_EQ(tally.audio().bytes, 256u);
    EXPECT_EQ(tally.passed(), 5u);
    EXPECT_EQ(tally.first_passed(), 0);
    EXPECT_EQ(sink.sizes.size(), 6u);
    EXPECT_EQ(tally.video().damaged + tally.audio().damaged, 0u);
}

TEST(Tally, SeesDamage)
{
    const struct {
        const char *name;
        Bytes packet;
    } rows[] = {
        {"no NAL unit", packet(VIDEO_PID, 0, hex("00000001 00"), 99)},
        {"forbidden bit", packet(VIDEO_PID, 0, hex("00000001 E5"), 99)},
        {"a hole", rest(VIDEO_PID, 0)},
        {"no sync word", packet(AUDIO_PID, 0, hex("0B78 0000 00 40"), 128)},
        {"another length", packet(AUDIO_PID, 0, hex("0B77 0000 00 40"), 130)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Sink sink;
        Tally tally(sink);
        tally.begin(content());
        write(tally, {picture(0), row.packet});
        EXPECT_EQ(tally.video().damaged + tally.audio().damaged, 1u);
        EXPECT_EQ(sink.sizes.size(), 2u);
    }
}

// The tables that came before are those that the stream begins with.
TEST(Tally, PassesFromTheTimeWanted)
{
    Sink sink;
    Tally tally(sink);
    tally.begin(content());
    tally.pass_from(9000);
    const Bytes pat = rest(0, 1), pmt = rest(0xFFF, 2), later = rest(0xFFF, 3);
    write(tally, {pat, pmt, picture(5400), rest(VIDEO_PID, 1), audio(5760), later, audio(6480),
                  picture(9000), rest(VIDEO_PID, 4), picture(7200)});
    EXPECT_EQ(sink.stream,
              pat + later + audio(6480) + picture(9000) + rest(VIDEO_PID, 4) + picture(7200));
    EXPECT_EQ(tally.passed(), 3u);
}

// Each of the two as far as it goes; one may be far ahead.
TEST(Tally, PassesUpToTheTimeWanted)
{
    Sink sink;
    Tally tally(sink);
    tally.begin(content());
    tally.expect_around(int64_t{7} * 3600 * TICKS_PER_SECOND);
    tally.pass_from(3000);
    tally.pass_until(9000);
    write(tally, {audio(2880), audio(9000)});
    EXPECT_FALSE(tally.has_ended());
    write(tally, {picture(3600), picture(9001), rest(VIDEO_PID, 1), picture(7200)});
    EXPECT_TRUE(tally.has_ended());
    // What comes after it may need it.
    EXPECT_EQ(sink.stream, audio(2880) + picture(3600));
    EXPECT_EQ(tally.first_passed(), 2880);
}

// Its frames all have the time of the first; what passes begins where the samples say.
TEST(Tally, GivesAudioWithoutAClockTheTimeOfItsStart)
{
    Sink sink;
    Tally tally(sink);
    tally.begin(content());
    tally.pass_from(3 * 2880);
    write(tally, {audio(90), audio(90), audio(90), audio(90), audio(90)});
    ASSERT_EQ(sink.sizes.size(), 3u);
    EXPECT_EQ(pts_of(sink.stream, 0), 90u + 2 * 2880);
    EXPECT_EQ(pts_of(sink.stream, 2), 90u + 2 * 2880);
    EXPECT_EQ(sink.stream[6], 0);
    EXPECT_EQ(sink.stream[9], (90 + 2 * 2880) >> 1 & 0xFF);
}

TEST(Tally, DropsWhatNobodyCanPlay)
{
    Sink sink;
    Tally tally(sink);
    tally.drop_video();
    tally.begin(content());
    write(tally, {rest(0, 1), picture(0), rest(VIDEO_PID, 1), audio(0), picture(3600)});
    EXPECT_EQ(sink.stream, rest(0, 1) + audio(0));
}

}  // namespace
