#include "rmx_mpeg2ts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "golt_crc.h"
#include "host_double.h"
#include "ts_checker.h"

namespace {

constexpr size_t PACKET = 188;

GOLT_streamInfo_t sources_info(GOLT_codecs_t video, GOLT_codecs_t audio, uint32_t rate = 48000,
                               uint32_t channels = 2)
{
    GOLT_streamInfo_t info = {};
    info.videoCodec = video;
    info.audioCodec = audio;
    info.aud_sampleRate = rate;
    info.aud_numChannels = channels;
    return info;
}

// The remuxer set up for a source, with all that it writes.
class Output {
public:
    explicit Output(GOLT_streamInfo_t info)
    {
        GOLT_RMX_init(Sink::write_proc, &m_sink, false);
        GOLT_RMX_setStreamInfo(&info);
    }
    ~Output()
    {
        const TsReport report = check_ts(m_sink.stream.data(), m_sink.stream.size());
        EXPECT_THAT(report.problems, ::testing::IsEmpty());
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    bool write(uint32_t type, Bytes data, uint64_t time_ms)
    {
        GOLT_frame_t frame = {time_ms, type, data.data(), static_cast<uint32_t>(data.size())};
        return GOLT_RMX_writeFrame(&frame);
    }

    const Sink &sink() const { return m_sink; }

    /// Packet by number; every write has to be one.
    Bytes packet(size_t number) const
    {
        EXPECT_LT(number, m_sink.sizes.size());
        return Bytes(m_sink.stream.begin() + static_cast<ptrdiff_t>(number * PACKET),
                     m_sink.stream.begin() + static_cast<ptrdiff_t>((number + 1) * PACKET));
    }

private:
    Sink m_sink;
};

Bytes filled(Bytes packet)
{
    packet.resize(PACKET, 0xFF);
    return packet;
}

TEST(Crc, KnowsTheCheckValue)
{
    const Bytes digits = text("123456789");
    EXPECT_EQ(golt_crc32(digits.data(), 9), 0x0376E6E7u);
    EXPECT_EQ(crc_update(crc_update(crc_init(), digits.data(), 4), digits.data() + 4, 5),
              0x0376E6E7u);
}

TEST(Psi, StandsInFrontOfTheFirstFrame)
{
    const struct {
        const char *name;
        GOLT_codecs_t video;
        GOLT_codecs_t audio;
        const char *pmt;
    } rows[] = {
        {"H.264 and AAC", GOLT_VCODEC_H264, GOLT_ACODEC_AAC,
         "02B0170001C10000E100F0001BE100F0000FE101F0002F44B99B"},
        {"H.264 and AC-3", GOLT_VCODEC_H264, GOLT_ACODEC_AC3,
         "02B01D0001C10000E100F0001BE100F00081E101F006050441432D33CE50FCBC"},
        {"H.264 and E-AC-3", GOLT_VCODEC_H264, GOLT_ACODEC_EAC3,
         "02B01D0001C10000E100F0001BE100F00087E101F006050445414333A3066423"},
        {"MPEG-2 video and MP3", GOLT_VCODEC_MPEG2, GOLT_ACODEC_MP3,
         "02B0170001C10000E100F00002E100F00003E101F000F64A0355"},
        {"MP3 alone", GOLT_CODEC_NONE, GOLT_ACODEC_MP3,
         "02B0120001C10000E101F00003E101F0008DFF3411"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Output out(sources_info(row.video, row.audio));
        GOLT_RMX_writeHeader();
        EXPECT_TRUE(out.sink().stream.empty());
        EXPECT_TRUE(out.write(GOLT_FT_AUDIO, Bytes(10), 0));
        EXPECT_EQ(out.packet(0), filled(hex("47400010 00 00B00D0001C100000001EFFF3690E23D")));
        EXPECT_EQ(out.packet(1), filled(hex("474FFF10 00") + hex(row.pmt)));
    }
}

TEST(Psi, ListsUnknownAudioAsPrivateData)
{
    for (const GOLT_codecs_t audio : {GOLT_CODEC_UNKNOWN, GOLT_ACODEC_max, GOLT_VCODEC_H264}) {
        Output out(sources_info(GOLT_VCODEC_H264, audio));
        out.write(GOLT_FT_VIDEO, Bytes(10), 0);
        const Bytes pmt = out.packet(1);
        EXPECT_EQ(Bytes(pmt.begin() + 17, pmt.begin() + 27), hex("1BE100F000 06E101F000"));
    }
}

TEST(Psi, ComesAgainAfterFortyOneMediaPackets)
{
    Output out(sources_info(GOLT_VCODEC_H264, GOLT_ACODEC_MP3));
    std::vector<size_t> pats;
    for (int frame = 0; frame < 41 * 17 + 1; ++frame)
        out.write(frame % 3 == 0 ? GOLT_FT_AUDIO : GOLT_FT_VIDEO, Bytes(1), 0);
    for (size_t number = 0; number < out.sink().sizes.size(); ++number) {
        if (out.packet(number)[2] == 0 && out.packet(number)[1] == 0x40) pats.push_back(number);
    }
    ASSERT_EQ(pats.size(), 18u);
    for (size_t i = 0; i < pats.size(); ++i) {
        EXPECT_EQ(pats[i], i * 43);
        EXPECT_EQ(out.packet(pats[i])[3], 0x10 | (i & 0xF)) << "the PAT counts by itself";
        EXPECT_EQ(out.packet(pats[i] + 1)[3], 0x10 | (i & 0xF)) << "and so does the PMT";
    }
}

TEST(Pes, WritesTheHeadersOfASmallFrame)
{
    Output out(sources_info(GOLT_CODEC_NONE, GOLT_ACODEC_MP3));
    const Bytes frame = pattern(100, 1);
    out.write(GOLT_FT_AUDIO, frame, 1000);
    EXPECT_EQ(out.packet(2), hex("47410130 45 10 0000AFC87E00") + Bytes(62, 0xFF) +
                                 hex("000001C0 006C 808005 210005BF21") + frame);
}

TEST(Pes, PutsAnAdtsHeaderInFrontOfAac)
{
    const struct {
        const char *name;
        uint32_t rate, channels;
        size_t size;
        const char *header;
    } rows[] = {
        {"44100 stereo", 44100, 2, 100, "FFF950800D7FFC"},
        {"unknown rate counts as 48000", 7350, 2, 100, "FFF94C800D7FFC"},
        {"96000, eight channel bits", 96000, 7, 100, "FFF941C00D7FFC"},
        {"largest frame", 48000, 1, 8184, "FFF94C43FFFFFC"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Output out(sources_info(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, row.rate, row.channels));
        const Bytes frame = pattern(row.size, 2);
        out.write(GOLT_FT_AUDIO, frame, 0);
        const Bytes packet = out.packet(2);
        const size_t pes = 5u + packet[4];
        EXPECT_EQ(Bytes(packet.begin() + static_cast<ptrdiff_t>(pes),
                        packet.begin() + static_cast<ptrdiff_t>(pes) + 21),
                  hex("000001C0") + be16(static_cast<uint32_t>(15 + row.size)) +
                      hex("808005 2100010001") + hex(row.header));
    }
}

TEST(Pes, FillsTheLastPacketFromTheFront)
{
    // First bytes of the last packet, behind the counter, for each size of a frame.
    const struct {
        size_t size;
        const char *audio_codec;
        size_t packets;
        const char *head;
    } rows[] = {
        {162, "mp3", 1, "0710"},       {161, "mp3", 1, "0810 000000007E00 FF 000001"},
        {162 + 184, "mp3", 2, ""},     {162 + 183, "mp3", 2, "00"},
        {162 + 182, "mp3", 2, "0100"}, {162 + 181, "mp3", 2, "0200FF"},
        {155, "aac", 1, "0710"},       {154, "aac", 1, "0810 000000007E00 FF 000001"},
        {155 + 184, "aac", 2, ""},     {1, "mp3", 1, "A810 000000007E00 FFFF"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.size);
        const bool aac = std::string(row.audio_codec) == "aac";
        Output out(sources_info(GOLT_VCODEC_H264, aac ? GOLT_ACODEC_AAC : GOLT_ACODEC_MP3));
        const Bytes frame = pattern(row.size, 3);
        out.write(GOLT_FT_AUDIO, frame, 0);
        ASSERT_EQ(out.sink().sizes.size(), 2 + row.packets);
        const Bytes last = out.packet(1 + row.packets);
        const Bytes head = hex(row.head);
        EXPECT_EQ(last[3] & 0x20, head.empty() ? 0 : 0x20);
        EXPECT_TRUE(std::equal(head.begin(), head.end(), last.begin() + 4));
        const size_t tail = std::min<size_t>(row.size, row.packets == 1 ? 155 : 181);
        EXPECT_TRUE(std::equal(frame.end() - static_cast<ptrdiff_t>(tail), frame.end(),
                               last.end() - static_cast<ptrdiff_t>(tail)));
    }
}

TEST(Pes, KeepsTheLowBitsOfLargeLengthsAndTimes)
{
    Output out(sources_info(GOLT_VCODEC_H264, GOLT_ACODEC_AC3));
    out.write(GOLT_FT_VIDEO, Bytes(70000), 47722000);  // 4294980000 ticks: 33 bits
    const Bytes packet = out.packet(2);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 26),
              hex("47410030 0710 8000 18D0 7E00 000001E0 1178 808005 2900 0163 41"));
    out.write(GOLT_FT_AUDIO, Bytes(162), 0);
    const Bytes audio = out.packet(out.sink().sizes.size() - 1);
    EXPECT_EQ(audio[15], 0xBD) << "AC-3 goes out as a private stream";

    GOLT_frame_t frame = {47722000, GOLT_FT_VIDEO, nullptr, 0};
    uint32_t pts = 0;
    GOLT_RMX_getPTS(&frame, &pts);
    EXPECT_EQ(pts, 12704u);
}

TEST(Pes, WritesNothingForEmptyUnknownAndPassesTransportPackets)
{
    Output out(sources_info(GOLT_VCODEC_H264, GOLT_ACODEC_MP3));
    EXPECT_TRUE(out.write(GOLT_FT_VIDEO, {}, 0));
    EXPECT_FALSE(out.write(GOLT_FT_MAX, Bytes(5), 0));
    EXPECT_FALSE(out.write(0xFFFFFFFF, Bytes(5), 0));
    EXPECT_TRUE(out.sink().sizes.empty());

    // Two packets without payload.
    const Bytes packets = filled(hex("4701002F B7 00")) + filled(hex("4701002F B7 00"));
    EXPECT_TRUE(out.write(GOLT_FT_MPEG2TS, packets, 0));
    EXPECT_EQ(out.sink().stream, packets);
    EXPECT_EQ(out.sink().sizes, std::vector<int>{2 * PACKET});

    out.write(GOLT_FT_VIDEO, Bytes(1), 0);
    EXPECT_EQ(out.sink().sizes.size(), 4u) << "PAT and PMT still wait for the first frame";
}

}  // namespace
