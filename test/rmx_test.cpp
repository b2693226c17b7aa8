#include "rmx_mpeg2ts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "golt_crc.h"
#include "host_double.h"
#include "rmx_mpeg2ts_i.h"
#include "ts_collector.h"

namespace {

constexpr size_t PACKET = 188;

static_assert(offsetof(GOLT_RMX_context_t, service) == 2 * sizeof(void *) + 8, "order");
static_assert(offsetof(GOLT_RMX_context_t, audio) == 2 * sizeof(void *) + 36, "order");
static_assert(offsetof(GOLT_RMX_context_t, tsid) == 2 * sizeof(void *) + 56, "order");
static_assert(offsetof(GOLT_RMX_context_t, packet) == 2 * sizeof(void *) + 108, "order");
static_assert(sizeof(GOLT_RMX_context_t) - offsetof(GOLT_RMX_context_t, packet) < PACKET + 8,
              "the packet comes last");

// The remuxer set up for a source, with all that it writes. The checker judges it at the end.
class Output {
public:
    Output(GOLT_codecs_t video, GOLT_codecs_t audio, uint32_t rate = 48000, uint32_t channels = 2)
    {
        GOLT_streamInfo_t info = {};
        info.videoCodec = video;
        info.audioCodec = audio;
        info.aud_sampleRate = rate;
        info.aud_numChannels = channels;
        GOLT_RMX_init(Sink::write_proc, &sink, false);
        GOLT_RMX_setStreamInfo(&info);
        GOLT_RMX_writeHeader();
    }
    ~Output() { EXPECT_THAT(report().problems, ::testing::IsEmpty()); }

    bool write(uint32_t type, Bytes data, uint64_t time_ms = 0)
    {
        GOLT_frame_t frame = {time_ms, type, data.data(), static_cast<uint32_t>(data.size())};
        return GOLT_RMX_writeFrame(&frame);
    }
    size_t packets() const { return sink.sizes.size(); }
    /// The first size bytes of a packet; every write has to be one.
    Bytes packet(size_t number, size_t size = PACKET) const
    {
        const auto at = sink.stream.begin() + static_cast<ptrdiff_t>(number * PACKET);
        return Bytes(at, at + static_cast<ptrdiff_t>(size));
    }
    TsReport report() const { return check_ts(sink.stream); }

    Sink sink;
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
}

TEST(Psi, StandsInFrontOfTheFirstFrame)
{
    const struct {
        GOLT_codecs_t video, audio;
        const char *pmt;
    } rows[] = {
        {GOLT_VCODEC_H264, GOLT_ACODEC_AAC, "02B0170001C10000E100F0001BE100F0000FE101F0002F44B99B"},
        {GOLT_VCODEC_H264, GOLT_ACODEC_AC3,
         "02B01D0001C10000E100F0001BE100F00081E101F006050441432D33CE50FCBC"},
        {GOLT_VCODEC_H264, GOLT_ACODEC_EAC3,
         "02B01D0001C10000E100F0001BE100F00087E101F006050445414333A3066423"},
        {GOLT_VCODEC_MPEG2, GOLT_ACODEC_MP3,
         "02B0170001C10000E100F00002E100F00003E101F000F64A0355"},
        {GOLT_CODEC_NONE, GOLT_ACODEC_MP3, "02B0120001C10000E101F00003E101F0008DFF3411"},
        // A codec that isn't for audio: private data.
        {GOLT_VCODEC_H264, GOLT_VCODEC_H264, "02B0170001C10000E100F0001BE100F00006E101F000"},
    };
    for (const auto &row : rows) {
        Output out(row.video, row.audio);
        EXPECT_EQ(out.packets(), 0u);
        EXPECT_TRUE(out.write(GOLT_FT_AUDIO, Bytes(10)));
        EXPECT_EQ(out.packet(0), filled(hex("47400010 00 00B00D0001C100000001EFFF3690E23D")));
        const Bytes pmt = hex("474FFF10 00") + hex(row.pmt);
        EXPECT_EQ(out.packet(1, pmt.size()), pmt);
    }
}

TEST(Psi, ComesAgainAfterFortyOneMediaPackets)
{
    Output out(GOLT_VCODEC_H264, GOLT_ACODEC_MP3);
    // Five frames of 1, 1, 2, 3 and 4 packets: 16 * 41 + 26 packets together.
    for (size_t frame = 0; frame < 310; ++frame)
        out.write(frame % 3 == 0 ? GOLT_FT_AUDIO : GOLT_FT_VIDEO, Bytes(1 + frame % 5 * 150));
    std::vector<size_t> expected;
    for (size_t i = 0; i < 17; ++i)
        expected.push_back(i * (2 + 41));
    EXPECT_EQ(out.report().pat_packets, expected);
}

// A section that takes more than a packet, as none of this program does.
TEST(Psi, SplitsALongSection)
{
    const struct {
        size_t size;
        std::vector<const char *> heads;
    } rows[] = {
        {183, {"475ABC1700"}},
        {184, {"475ABC1700", "471ABC18"}},
        {183 + 184 + 1, {"475ABC1700", "471ABC18", "471ABC19"}},
    };
    for (const auto &row : rows) {
        Sink sink;
        GOLT_RMX_init(Sink::write_proc, &sink, false);
        MPEG2TSSection_t table = {0x1ABC, 6};
        Bytes section = pattern(row.size, 1);
        EXPECT_TRUE(mpeg2ts_write_section(&table, section.data(), static_cast<int>(row.size)));
        EXPECT_EQ(golt_crc32(section.data(), static_cast<uint32_t>(row.size)), 0u);
        Bytes expected, rest = section;
        for (const char *head : row.heads) {
            Bytes packet = hex(head);
            const size_t part = std::min(rest.size(), PACKET - packet.size());
            packet.insert(packet.end(), rest.begin(), rest.begin() + static_cast<ptrdiff_t>(part));
            rest.erase(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(part));
            expected += filled(packet);
        }
        EXPECT_EQ(sink.stream, expected) << row.size;
    }
}

// A table is sent again as it was, with its counter alone advanced, until something that it is made of changes.
TEST(Psi, FollowsAllThatItIsMadeOf)
{
    constexpr auto PAT = "47400011 00 00B00D0001C100000001EFFF";
    constexpr auto PMT = "474FFF11 00 02B01D0001C10000E100F000 1BE100F000 81E101F006050441432D33";
    const struct {
        void (*change)(GOLT_RMX_context_t &context);
        const char *pat, *pmt;
    } rows[] = {
        {[](auto &) {}, PAT, PMT},
        {[](auto &context) { context.pat.PID = 0x10; }, "47401011 00 00B00D0001C100000001EFFF",
         PMT},
        {[](auto &context) { context.tsid = 0x203; }, "47400011 00 00B00D0203C100000001EFFF", PMT},
        {[](auto &context) { context.service.sid = 0x203; }, "47400011 00 00B00D0001C100000203EFFF",
         "474FFF11 00 02B01D0203C10000E100F000 1BE100F000 81E101F006050441432D33"},
        {[](auto &context) { context.service.pmt.PID = 0x20; },
         "47400011 00 00B00D0001C100000001E020",
         "47402011 00 02B01D0001C10000E100F000 1BE100F000 81E101F006050441432D33"},
        {[](auto &context) { context.service.pcr_pid = 0x1FFF; }, PAT,
         "474FFF11 00 02B01D0001C10000FFFFF000 1BE100F000 81E101F006050441432D33"},
        {[](auto &context) { context.video.PID = 0x102; }, PAT,
         "474FFF11 00 02B01D0001C10000E100F000 1BE102F000 81E101F006050441432D33"},
        {[](auto &context) { context.audio.PID = 0x102; }, PAT,
         "474FFF11 00 02B01D0001C10000E100F000 1BE100F000 81E102F006050441432D33"},
        {[](auto &context) { context.video.stream_type = 0x24; }, PAT,
         "474FFF11 00 02B01D0001C10000E100F000 24E100F000 81E101F006050441432D33"},
        {[](auto &context) { context.audio.stream_type = 0x0F; }, PAT,
         "474FFF11 00 02B01D0001C10000E100F000 1BE100F000 0FE101F006050441432D33"},
        {[](auto &context) { context.video.is_present = false; }, PAT,
         "474FFF11 00 02B0180001C10000E100F000 81E101F006050441432D33"},
        {[](auto &context) { context.audio.is_present = false; }, PAT,
         "474FFF11 00 02B0120001C10000E100F000 1BE100F000"},
        {[](auto &context) { context.sinfo.audioCodec = GOLT_ACODEC_EAC3; }, PAT,
         "474FFF11 00 02B01D0001C10000E100F000 1BE100F000 81E101F006050445414333"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Sink sink;
        GOLT_streamInfo_t info = {};
        info.videoCodec = GOLT_VCODEC_H264;
        info.audioCodec = GOLT_ACODEC_AC3;
        GOLT_RMX_init(Sink::write_proc, &sink, false);
        GOLT_RMX_setStreamInfo(&info);
        mpeg2ts_send_pat();
        mpeg2ts_send_pmt();
        row.change(remux_context);
        sink.stream.clear();
        mpeg2ts_send_pat();
        mpeg2ts_send_pmt();
        Bytes expected;
        for (const char *head : {row.pat, row.pmt}) {
            Bytes packet = hex(head);
            packet += be32(golt_crc32(packet.data() + 5, static_cast<uint32_t>(packet.size()) - 5));
            expected += filled(packet);
        }
        EXPECT_EQ(sink.stream, expected);
    }
}

// A fresh output keeps the description until it gets another.
TEST(Psi, KeepsTheDescriptionWhenItStartsAgain)
{
    Output out(GOLT_VCODEC_MPEG2, GOLT_ACODEC_MP3);
    out.write(GOLT_FT_VIDEO, Bytes(1));
    out.sink.stream.clear();
    GOLT_RMX_init(Sink::write_proc, &out.sink, false);
    out.write(GOLT_FT_AUDIO, Bytes(1));
    EXPECT_EQ(out.packet(1), filled(hex("474FFF1000 02B0170001C10000E100F00002E100F00003E101F000"
                                        "F64A0355")));
    EXPECT_EQ(out.packet(2, 4), hex("47410130"));
}

TEST(Output, ReportsSuccess)
{
    Output out(GOLT_VCODEC_H264, GOLT_ACODEC_AAC);
    GOLT_frame_t frame = {};
    GOLT_streamInfo_t info = remux_context.sinfo;
    GOLT_remuxInfo_t pids = {};
    uint32_t pts = 0;
    EXPECT_TRUE(GOLT_RMX_init(Sink::write_proc, &out.sink, true) && GOLT_RMX_setStreamInfo(&info));
    EXPECT_TRUE(GOLT_RMX_getRemuxInfo(&pids) && pids.audioPid == 0x101 && pids.videoPid == 0x100);
    EXPECT_TRUE(GOLT_RMX_getPTS(&frame, &pts) && GOLT_RMX_convertFrame(&frame, true));
    EXPECT_TRUE(GOLT_RMX_writeHeader() && GOLT_RMX_writeTrailer() && GOLT_RMX_destroy());
    EXPECT_TRUE(mpeg2ts_resend_psi() && mpeg2ts_send_pat() && mpeg2ts_send_pmt());
    EXPECT_EQ(out.packets(), 4u);
}

TEST(Pes, CarriesAnyFrameWhole)
{
    for (const GOLT_codecs_t audio : {GOLT_ACODEC_AAC, GOLT_ACODEC_AC3, GOLT_ACODEC_MP3}) {
        Output out(GOLT_VCODEC_H264, audio);
        for (uint32_t size = 1; size < 800; ++size)
            out.write(size % 2 == 0 ? GOLT_FT_AUDIO : GOLT_FT_VIDEO, pattern(size, size), size);
        const TsReport report = out.report();
        ASSERT_EQ(report.pes.size(), 799u);
        for (uint32_t size = 1; size < 800; ++size) {
            const TsPes &pes = report.pes[size - 1];
            const bool is_audio = size % 2 == 0, has_adts = is_audio && audio == GOLT_ACODEC_AAC;
            EXPECT_EQ(pes.pid, is_audio ? 0x101 : 0x100);
            EXPECT_EQ(pes.stream_id, !is_audio ? 0xE0 : audio == GOLT_ACODEC_AC3 ? 0xBD : 0xC0);
            EXPECT_EQ(pes.pts, size * 90u);
            EXPECT_EQ(pes.pcr, size * 90u * 300u);
            EXPECT_EQ(Bytes(pes.payload.begin() + (has_adts ? 7 : 0), pes.payload.end()),
                      pattern(size, size));
        }
    }
}

TEST(Pes, MatchesHandMadePackets)
{
    const Bytes frame = pattern(100, 1);
    Output mp3(GOLT_CODEC_NONE, GOLT_ACODEC_MP3);
    mp3.write(GOLT_FT_AUDIO, frame, 1000);
    EXPECT_EQ(mp3.packet(2), hex("47410130 45 10 0000AFC87E00") + Bytes(62, 0xFF) +
                                 hex("000001C0 006C 808005 210005BF21") + frame);

    // 33 bits of time; of a length above 16 bits the low ones.
    Output large(GOLT_VCODEC_H264, GOLT_ACODEC_AC3);
    large.write(GOLT_FT_VIDEO, Bytes(70000), 47722000);
    EXPECT_EQ(large.packet(2, 26),
              hex("47410030 0710 800018D07E00 000001E0 1178 808005 2900016341"));
    GOLT_frame_t record = {47722000, GOLT_FT_VIDEO, nullptr, 0};
    uint32_t pts = 0;
    GOLT_RMX_getPTS(&record, &pts);
    EXPECT_EQ(pts, 12704u);
}

TEST(Pes, CutsTimesTo33Bits)
{
    const struct {
        uint64_t time_ms;
        const char *pcr, *pts;
    } rows[] = {
        {95443717, "FFFFFFE17E00", "2FFFFFFF85"},  // 62 ticks below 2^33
        {95443718, "0000000E7E00", "2100010039"},
        {UINT64_MAX, "FFFFFFD37E00", "2FFFFFFF4D"},  // -90 ticks
    };
    for (const auto &row : rows) {
        Output out(GOLT_VCODEC_H264, GOLT_ACODEC_MP3);
        out.write(GOLT_FT_VIDEO, Bytes(162), row.time_ms);
        EXPECT_EQ(out.packet(2, 26),
                  hex("474100300710") + hex(row.pcr) + hex("000001E000AA808005") + hex(row.pts));
    }
}

TEST(Pes, StuffsTheLastPacketInFront)
{
    const struct {
        size_t size;
        const char *head;  // of the last packet, after its PID
    } rows[] = {
        {162, "300710"},
        {161, "300810000000007E00FF000001"},
        {162 + 184, "11"},
        {162 + 183, "3100"},
        {162 + 182, "310100"},
        {162 + 181, "310200FF"},
        {162 + 184 + 182, "320100"},
    };
    for (const auto &row : rows) {
        Output out(GOLT_VCODEC_H264, GOLT_ACODEC_MP3);
        out.write(GOLT_FT_AUDIO, Bytes(row.size));
        const Bytes head = hex(row.head), last = out.packet(out.packets() - 1, 3 + head.size());
        EXPECT_EQ(Bytes(last.begin() + 3, last.end()), head) << row.size;
    }
}

TEST(Pes, PutsAnAdtsHeaderInFrontOfAac)
{
    const struct {
        uint32_t rate, channels;
        size_t size;
        const char *header;
    } rows[] = {
        {44100, 2, 100, "FFF950800D7FFC"},
        {7350, 2, 100, "FFF94C800D7FFC"},  // unknown: counts as 48000
        {UINT32_MAX, 2, 100, "FFF94C800D7FFC"},
        {88200, 2, 100, "FFF944800D7FFC"},
        {64000, 2, 100, "FFF948800D7FFC"},
        {32000, 2, 100, "FFF954800D7FFC"},
        {24000, 2, 100, "FFF958800D7FFC"},
        {22050, 2, 100, "FFF95C800D7FFC"},
        {16000, 2, 100, "FFF960800D7FFC"},
        {12000, 2, 100, "FFF964800D7FFC"},
        {11025, 2, 100, "FFF968800D7FFC"},
        {8000, 2, 100, "FFF96C800D7FFC"},
        {96000, 7, 100, "FFF941C00D7FFC"},
        {48000, 1, 8184, "FFF94C43FFFFFC"},  // the largest frame
    };
    for (const auto &row : rows) {
        Output out(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, row.rate, row.channels);
        out.write(GOLT_FT_AUDIO, Bytes(row.size));
        const Bytes payload = out.report().pes[0].payload;
        EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 7), hex(row.header));
    }
}

TEST(Pes, WritesNothingForEmptyOrUnknownAndPassesTransportPackets)
{
    Output out(GOLT_VCODEC_H264, GOLT_ACODEC_MP3);
    EXPECT_TRUE(out.write(GOLT_FT_VIDEO, {}));
    EXPECT_FALSE(out.write(GOLT_FT_MAX, Bytes(5)));
    EXPECT_EQ(out.packets(), 0u);

    const Bytes without_payload = filled(hex("4701002F B7 00"));
    EXPECT_TRUE(out.write(GOLT_FT_MPEG2TS, without_payload + without_payload));
    EXPECT_EQ(out.sink.stream, without_payload + without_payload);
    EXPECT_EQ(out.sink.sizes, std::vector<int>{2 * PACKET});
    out.write(GOLT_FT_VIDEO, Bytes(1));
    EXPECT_EQ(out.packets(), 4u) << "PAT and PMT still wait for the first frame";
}

}  // namespace
