#include "golt_stage.h"

#include "heap.h"
#include "stage_hold.h"
#include "staged.h"

namespace {

using ::testing::ElementsAre;

Bytes filled(const std::string &front, const Bytes &back = {})
{
    Bytes out = hex(front);
    out.resize(188 - back.size(), 0xFF);
    return out + back;
}

Bytes packet(const Bytes &stream, size_t number)
{
    const auto at = stream.begin() + static_cast<ptrdiff_t>(number * 188);
    return Bytes(at, at + 188);
}

// One picture without reordering: tables, and a picture in one packet. 700 ms: the clock is moved by 1000 ms and goes
// 300 ms ahead of the picture at 0.
TEST(Stage, WritesAPictureByteForByte)
{
    const Bytes sps = sps_of(0), idr = slice(0x65, 40, 1);
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    out.video(0, unit(sps) + unit(PPS) + idr).finish();
    ASSERT_EQ(out.stream.size(), 3 * 188u);
    EXPECT_EQ(packet(out.stream, 0), filled("47400010 00 00B00D0001C100000001EFFF3690E23D"));
    // The library's PMT lists audio that isn't there.
    EXPECT_EQ(packet(out.stream, 1),
              filled("474FFF10 00 02B0120001C10000E100F0001BE100F000 15BD4D56"));
    const Bytes payload = AUD + unit(sps) + unit(PPS) + idr;
    const Bytes pes = hex("000001E0") + be16(static_cast<uint32_t>(8 + payload.size())) +
                      hex("848005 210005BF21");
    // PCR 63000: 0x7B0C << 1.
    Bytes expected = hex("47410030 00 50 00007B0C7E00");
    expected[4] = static_cast<uint8_t>(188 - 5 - pes.size() - payload.size());
    expected.resize(188 - pes.size() - payload.size(), 0xFF);
    EXPECT_EQ(packet(out.stream, 2), expected + pes + payload);
}

TEST(Stage, DecodesPicturesInTheOrderInWhichTheyCome)
{
    // Times in ms: of presentation as they come, and of decoding.
    const struct {
        const char *name;
        Bytes sps;
        std::vector<int> pts, dts;
    } rows[] = {
        {"none reordered", sps_of(0), {0, 40, 80}, {0, 40, 80}},
        {"IPBPB", sps_of(1), {0, 80, 40, 160, 120}, {-40, 0, 40, 80, 120}},
        {"pyramid", sps_of(2), {0, 160, 80, 40, 120, 200}, {-80, -40, 0, 40, 80, 120}},
        {"starts with leading pictures", sps_of(1), {120, 40, 80, 200, 160}, {0, 40, 80, 120, 160}},
        {"pictures are missing",
         sps_of(1),
         {0, 80, 200, 160, 400, 280},
         {-40, 0, 80, 160, 200, 280}},
        {"two at once", sps_of(0), {0, 40, 40, 80}, {0, 40, 40, 80}},
        {"the profile has no B pictures", sps_of(-1, 66), {0, 40, 80}, {0, 40, 80}},
        {"shown as they come", sps_of(-1, 77, 31, 2), {0, 40, 80}, {0, 40, 80}},
        // Of 1280x720, level 3.1 allows 18000 / 3600 pictures.
        {"by level", sps_of(-1), {0, 40, 80, 120, 160, 200}, {-200, -160, -120, -80, -40, 0}},
        {"high profile", sps_of(1, 100), {0, 80, 40}, {-40, 0, 40}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
        for (size_t i = 0; i < row.pts.size(); ++i)
            out.video(1000 + static_cast<uint64_t>(row.pts[i]),
                      i == 0 ? unit(row.sps) + unit(PPS) + slice(0x65, 9, 1) : slice(0x41, 9, 1));
        const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
        ASSERT_EQ(units.size(), row.pts.size());
        for (size_t i = 0; i < units.size(); ++i) {
            EXPECT_EQ((units[i].pts - 90000) / 90, 1000 + row.pts[i]) << i;
            EXPECT_EQ((units[i].dts - 90000) / 90, 1000 + row.dts[i]) << i;
            EXPECT_TRUE(i == 0 || units[i].dts > units[i - 1].dts) << i;
        }
        EXPECT_EQ(out.stage.counts().misordered, 0u);
    }
}

// The SPS states that none are reordered. One comes too late for that, and those after it are waited for.
TEST(Stage, LearnsThatPicturesAreReorderedFarther)
{
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    const std::vector<int> pts = {0, 80, 40, 160, 120, 240, 200},
                           dts = {0, 80, 40, 80, 120, 160, 200};
    for (const int each : pts)
        out.video(static_cast<uint64_t>(each),
                  each == 0 ? unit(sps_of(0)) + unit(PPS) + slice(0x65, 9, 1) : slice(0x41, 9, 1));
    const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
    for (size_t i = 0; i < pts.size(); ++i) {
        EXPECT_EQ((units.at(i).pts - 90000) / 90, pts[i]);
        EXPECT_EQ((units.at(i).dts - 90000) / 90, dts[i]) << i;
    }
    EXPECT_EQ(out.stage.counts().misordered, 1u);
}

TEST(Stage, PutsParameterSetsOnceBeforeEachKeyPicture)
{
    const Bytes sps = unit(sps_of(0)), pps = unit(PPS), sets = sps + pps;
    const Bytes sei = unit(hex("0605 01AABB 80")), recovery = unit(hex("0606 0185 80"));
    const Bytes idr = slice(0x65, 300, 1), second = slice(0x65, 200, 2), p = slice(0x41, 50, 3);
    const Bytes other_pps = unit(hex("68CE3C80"));
    const struct {
        const char *name;
        Bytes in, out;
        bool f_key;
    } rows[] = {
        {"as they come first", sets + idr, AUD + sets + idr, true},
        {"no key picture", p, AUD + p, false},
        {"without them", idr, AUD + sets + idr, true},
        {"before each slice", sets + idr + sets + second, AUD + sets + idr + second, true},
        {"after SEI", sei + sets + idr, AUD + sets + sei + idr, true},
        {"recovery point", recovery + p, AUD + sets + recovery + p, true},
        {"with a delimiter of its own", unit(hex("0910")) + idr, unit(hex("0910")) + sets + idr,
         true},
        {"with trailing zeros", sets + idr + hex("0000") + sets + second,
         AUD + sets + idr + hex("0000") + second, true},
        {"a new one between slices", idr + other_pps + second,
         AUD + sets + idr + other_pps + second, true},
        {"a new one first", sps + other_pps + idr, AUD + sps + other_pps + idr, true},
    };
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    uint64_t time_ms = 0;
    for (const auto &row : rows)
        out.video(time_ms += 40, row.in);
    const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
    ASSERT_EQ(units.size(), std::size(rows));
    for (size_t i = 0; i < units.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(units[i].payload, rows[i].out);
        EXPECT_EQ(units[i].f_random_access, rows[i].f_key);
    }
}

// Both fields of a frame come as one; each is an access unit. The first byte after a slice's type begins with
// first_mb_in_slice: 1 in a bit of its own is macroblock 0.
TEST(Stage, PutsADelimiterBeforeASecondField)
{
    const auto field = [](uint8_t first_mb, size_t size) {
        Bytes out = slice(0x41, size, first_mb);
        out[5] = first_mb;
        return out;
    };
    const Bytes sets = unit(sps_of(0, 77, 31, 0, true)) + unit(PPS),
                sei = unit(hex("0605 01AABB 80"));
    const Bytes first = field(0x88, 100), more = field(0x44, 60), second = field(0x98, 80);
    const Bytes other_pps = unit(hex("68CE3C80")), own = unit(hex("0910"));
    const struct {
        const char *name;
        Bytes in, out;
    } rows[] = {
        {"a frame", first + more, first + more},
        {"two fields", first + second, first + AUD + second},
        {"of two slices each", first + more + second + more, first + more + AUD + second + more},
        {"SEI is before", first + sei + second, first + AUD + sei + second},
        {"delimited already", first + own + sei + second, first + own + sei + second},
        {"parameter sets are before", first + sets + second, first + AUD + second},
        {"new ones", first + other_pps + second, first + AUD + other_pps + second},
    };
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    uint64_t time_ms = 0;
    out.video(0, sets + slice(0x65, 9, 1));
    for (const auto &row : rows)
        out.video(time_ms += 40, row.in);
    // The second field begins anywhere in a packet.
    for (size_t size = 300; size < 500; ++size)
        out.video(time_ms += 40, field(0x88, size) + second);
    const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
    ASSERT_EQ(units.size(), 1 + std::size(rows) + 200);
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(units[1 + i].payload, AUD + rows[i].out) << rows[i].name;
    for (size_t size = 300; size < 500; ++size)
        EXPECT_EQ(units[1 + std::size(rows) + size - 300].payload,
                  AUD + field(0x88, size) + AUD + second)
            << size;
}

TEST(Stage, TakesParameterSetsFromTheHost)
{
    const Bytes sps = sps_of(2);
    const Bytes config =
        hex("014D001FFFE1") + be16(static_cast<uint32_t>(sps.size())) + sps + hex("010004") + PPS;
    golt::StageHints hints;
    hints.video.config = config.data();
    hints.video.config_size = config.size();
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE, hints);
    const Bytes recovery = unit(hex("0606 0185 80")), i = slice(0x41, 50, 3);
    out.video(1000, recovery + i).video(1080, i).video(1040, i).video(1120, i);
    const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
    EXPECT_EQ(units.at(0).payload, AUD + unit(sps) + unit(PPS) + recovery + i);
    EXPECT_EQ(units.at(0).pts - units.at(0).dts, 80 * 90);
}

TEST(Stage, LeavesTheLengthOfLongPicturesOpen)
{
    // The length that the library cuts to 16 bits, and the longest one that fits.
    for (const size_t size : {size_t{65535}, size_t{65536}, size_t{200000}}) {
        Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
        const size_t head = 8 + AUD.size() + CODE.size() + sps_of(0).size() + CODE.size() +
                            PPS.size() + CODE.size();
        out.video(0, unit(sps_of(0)) + unit(PPS) + slice(0x65, size - head, 1))
            .video(40, slice(0x41, 10, 2));
        const std::vector<FinishedUnit> units = out.finish().of(VIDEO);
        EXPECT_EQ(units.at(0).size, size);
        EXPECT_EQ(units.at(0).length, size == 65535 ? 65535u : 0u);
        EXPECT_EQ(units.at(1).length, units.at(1).size);
    }
}

// A stream that begins in the middle of another one: its first time is rounded, and the others count from there.
TEST(Stage, FindsTheTimesOfTheWhole)
{
    constexpr int64_t SAMPLES = 1024, RATE = 44100, FRAME_US = 23219;
    Staged whole(GOLT_CODEC_NONE, GOLT_ACODEC_AAC, {}, RATE);
    whole.audio(7, Bytes(50, 0x55)).finish();
    golt::StageHints hints;
    hints.audio_durations = golt::Durations::TOLD;
    hints.audio_grid = whole.stage.audio_grid();
    EXPECT_EQ(hints.audio_grid.time, 7 * 90);
    EXPECT_EQ(hints.audio_grid.samples, SAMPLES);
    EXPECT_EQ(hints.audio_grid.rate, RATE);

    // Frame 174 is at 7 + 4040.27 ms; what is 4 ms beside it is no frame of the whole.
    for (const int64_t first_ms : {4047, 4048, 4051}) {
        SCOPED_TRACE(first_ms);
        Staged part(GOLT_CODEC_NONE, GOLT_ACODEC_AAC, hints, RATE);
        for (int64_t i = 0; i < 100; ++i)
            part.audio(static_cast<uint64_t>(first_ms + i * FRAME_US / 1000), Bytes(50, 0x55));
        const std::vector<FinishedUnit> units = part.finish().of(AUDIO);
        const bool f_found = first_ms < 4050;
        const auto exact = [&](int64_t number) {
            return 90000 + 7 * 90 + (number * SAMPLES * 90000 + RATE / 2) / RATE;
        };
        EXPECT_EQ(units.front().pts, f_found ? exact(174) : 90000 + first_ms * 90);
        EXPECT_EQ(units.back().pts == exact(174 + 99), f_found);
    }
}

TEST(Stage, MovesTracksAsTheHostTells)
{
    golt::StageHints hints;
    hints.video.offset = -80 * 90;
    hints.audio.offset = 544 * 90 + 7;
    Staged out(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, hints);
    out.video(80, unit(sps_of(0)) + unit(PPS) + slice(0x65, 9, 1))
        .audio(0, Bytes(9))
        .video(120, slice(0x41, 9, 1));
    const FinishedStream finished = out.finish();
    EXPECT_EQ(finished.of(VIDEO).at(0).pts, 90000);
    EXPECT_EQ(finished.of(AUDIO).at(0).pts, 90000 + 544 * 90 + 7);
    EXPECT_EQ(out.stage.shift(), 90000);
}

TEST(Stage, MarksWhereTheSourceJumps)
{
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    const Bytes key = unit(sps_of(1)) + unit(PPS) + slice(0x65, 9, 1), p = slice(0x41, 9, 2);
    for (const int time_ms : {60000, 60080, 60040, 5000, 5080, 5040, 5120, 100000, 100080, 100040})
        out.video(static_cast<uint64_t>(time_ms), time_ms % 1000 == 0 ? key : p);
    const FinishedStream finished = out.finish();
    std::vector<int64_t> jumps;
    for (const FinishedClock &each : finished.clock) {
        if (each.f_jumps) jumps.push_back(each.pcr / 90);
    }
    // 300 ms ahead of the first picture's decoding, all of it 1000 ms later. Where it goes on, the first picture is
    // still decoded by the times before.
    EXPECT_THAT(jumps, ElementsAre(5660, 100700));
    EXPECT_EQ(finished.of(VIDEO).at(3).dts / 90, 5960);
    EXPECT_EQ(out.stage.counts().jumps, 2u);
}

// Audio of 4 s comes first, and then pictures.
TEST(Stage, TellsHowFarStreamsAreApart)
{
    Staged out(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, {}, 44100);
    for (uint64_t ms = 0; ms <= 4000; ms += 1000)
        out.audio(ms, Bytes(100, 0x55));
    for (uint64_t ms = 500; ms <= 5000; ms += 500)
        out.video(ms, unit(sps_of(0)) + unit(PPS) + slice(0x65, 9, 1));
    out.finish();
    EXPECT_EQ(out.stage.counts().worst_apart, 3500 * 90);
}

TEST(Stage, LetsReadyMadePacketsPass)
{
    Bytes stream;
    for (uint32_t i = 0; i < 3000; ++i)
        stream += hex("47") + pattern(187, i);
    for (const golt::StageMode mode : {golt::StageMode::BY_FIRST_PACKET, golt::StageMode::PASS}) {
        golt::StageHints hints;
        hints.mode = mode;
        Staged out(GOLT_CODEC_NONE, GOLT_ACODEC_MP3, hints);
        for (size_t at = 0; at < stream.size(); at += 188)
            EXPECT_TRUE(out.stage.write(stream.data() + at, 188));
        EXPECT_TRUE(out.stage.finish());
        EXPECT_EQ(out.stream, stream);
        EXPECT_LT(out.writes, 10u);
    }
}

TEST(Stage, ListsAudioOfAnyKindOnceItComes)
{
    Staged out(GOLT_VCODEC_H264, GOLT_CODEC_NONE);
    out.video(0, unit(sps_of(0)) + unit(PPS) + slice(0x65, 9, 1)).video(40, slice(0x41, 9, 2));
    out.audio(40, Bytes(9))
        .video(80, slice(0x41, 9, 2))
        .video(160, slice(0x41, 9, 2))
        .video(240, slice(0x41, 9, 3));
    const FinishedStream finished = out.finish();
    EXPECT_EQ(finished.pmt_sections.front(), hex("02B0120001C10000E100F0001BE100F000 15BD4D56"));
    const Bytes &last = finished.pmt_sections.back();
    EXPECT_EQ(Bytes(last.begin(), last.end() - 4),
              hex("02B0170001C30000E100F0001BE100F000 06E101F000"));
}

TEST(Stage, GivesUpWhenTheSinkDoes)
{
    const auto refuse = [](void *, const uint8_t *, size_t) { return false; };
    golt::Stage stage(refuse, nullptr, {golt::StageMode::PASS, {}, {}, golt::Durations::UNKNOWN});
    const Bytes packets = Bytes(188 * 2000, 0x47);
    EXPECT_FALSE(stage.write(packets.data(), packets.size()));
    EXPECT_FALSE(stage.finish());
    EXPECT_EQ(stage.counts().bytes_out, 0u);
}

TEST(PacketHold, HoldsLessWhereMemoryIsShort)
{
    using golt::PacketHold;
    const struct {
        int refused;  // requests, each for half as much as the one before
        size_t most;
    } rows[] = {{0, PacketHold::MOST_BYTES}, {1, PacketHold::MOST_BYTES / 2}, {6, 0}};
    for (const auto &row : rows) {
        const uint8_t packet[188] = {0x47};
        PacketHold hold;
        size_t held = 0, shown = 0;
        {
            const LibraryCall library;
            g_heap.granted = 0;
            g_heap.refused = row.refused;
            while (hold.add(packet))
                held += sizeof packet;
        }
        g_heap = {};
        EXPECT_EQ(held, row.most / sizeof packet * sizeof packet);
        EXPECT_EQ(hold.is_short(), row.refused != 0);
        hold.release([&](const uint8_t *) { shown += sizeof packet; });
        EXPECT_EQ(shown, held);
    }
}

}  // namespace
