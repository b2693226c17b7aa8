// What the stage makes of audio by itself.

#include "staged.h"

namespace {

using ::testing::ElementsAre;

// Frames of which the file gives only the first one's time.
TEST(Stage, TimesAudioByItsFrames)
{
    const Bytes mp3 = hex("FFFB9000") + Bytes(413, 0x55);  // 1152 samples of 44100 Hz, 417 bytes
    const Bytes ac3 = hex("0B77000014 40") + Bytes(122, 0x55);    // 1536 of 48000 Hz, 128 bytes
    const Bytes eac3 = hex("0B7700 1F 04 80") + Bytes(58, 0x55);  // one block of 48000 Hz, 64 bytes
    const Bytes dependent = hex("0B7740 1F 34 80") + Bytes(58, 0x55);  // goes with it
    // So small that some begin at the end of a packet.
    Bytes smallest;
    while (smallest.size() < 480)
        smallest += hex("0B7700 03 04 80 5555");
    const struct {
        const char *name;
        GOLT_codecs_t codec;
        Bytes frame;
        uint64_t samples, rate;
    } rows[] = {
        {"aac", GOLT_ACODEC_AAC, Bytes(100, 0x55), 1024, 44100},
        {"mp3", GOLT_ACODEC_MP3, mp3, 1152, 44100},
        {"mp3, two in one", GOLT_ACODEC_MP3, mp3 + mp3, 2304, 44100},
        {"ac3", GOLT_ACODEC_AC3, ac3, 1536, 48000},
        {"eac3", GOLT_ACODEC_EAC3, eac3 + dependent + eac3, 512, 48000},
        {"eac3, sixty in one", GOLT_ACODEC_EAC3, smallest, 60 * 256, 48000},
    };
    constexpr uint64_t COUNT = 5000;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Staged out(GOLT_CODEC_NONE, row.codec, {}, static_cast<uint32_t>(row.rate));
        for (uint64_t i = 0; i < COUNT; ++i)
            out.audio(500, row.frame);
        const std::vector<FinishedUnit> units = out.finish().of(AUDIO);
        ASSERT_EQ(units.size(), COUNT);
        for (const uint64_t i : {uint64_t{1}, uint64_t{2}, COUNT - 1}) {
            const double exact = 1500 * 90 + static_cast<double>(i * row.samples) * 90000 /
                                                 static_cast<double>(row.rate);
            EXPECT_NEAR(static_cast<double>(units[static_cast<size_t>(i)].pts), exact, 0.51) << i;
        }
        EXPECT_EQ(out.stage.counts().untimed_audio, 0u);
    }
}

// 10 hours take too long here with real frames; 1,700,000 frames of 16 bytes don't.
TEST(Stage, DoesNotDriftOverTenHours)
{
    Staged out(GOLT_CODEC_NONE, GOLT_ACODEC_AAC, {}, 44100);
    constexpr uint64_t COUNT = 36000 * uint64_t{44100} / 1024;
    int64_t last = 0;
    for (uint64_t i = 0; i <= COUNT; ++i) {
        out.audio(0, hex("0102"));
        if (out.stream.empty() || i == COUNT) continue;
        const FinishedStream some(out.stream);
        last = some.units.back().pts;
        out.stream.clear();
    }
    last = out.finish().units.back().pts;
    EXPECT_NEAR(static_cast<double>(last),
                90000.0 + static_cast<double>(COUNT) * 1024 * 90000 / 44100, 0.51);
}

TEST(Stage, KeepsTheTimesThatAFileTells)
{
    // 1024 samples of 48000 Hz are 21.33 ms; a file rounds them. Then 500 ms are missing.
    Staged out(GOLT_CODEC_NONE, GOLT_ACODEC_AAC);
    const std::vector<uint64_t> told = {0, 21, 43, 64, 585, 606, 627, 649};
    for (const uint64_t time_ms : told)
        out.audio(time_ms, Bytes(50, 0x55));
    const std::vector<FinishedUnit> units = out.finish().of(AUDIO);
    std::vector<int64_t> times;
    for (const FinishedUnit &each : units)
        times.push_back(each.pts - 90000);
    EXPECT_THAT(times, ElementsAre(0, 1920, 3840, 5760, 52650, 54570, 56490, 58410));
}

TEST(Stage, CorrectsAdtsByTheConfiguration)
{
    const struct {
        const char *name;
        const char *config;
        const char *header;  // profile, rate and channels of the library: LC, 48000 Hz, 2
        const char *pce;
    } rows[] = {
        {"nothing known", "", "FFF94C80027FFC", ""},
        {"5.1 channels", "11B0", "FFF94D80027FFC", ""},
        {"SBR: half of the rate", "2B118800", "FFF95880027FFC", ""},
        {"channels by an element that is cut off", "118004C40400200002", "FFF94C80027FFC", ""},
        // A pair in front and one channel behind; the comment is "AB".
        {"channels by an element", "118004C404002000024142", "FFF94C00039FFC",
         "A09880800400024142"},
        {"no profile of ADTS", "B910", "FFF94C80027FFC", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes config = hex(row.config);
        golt::StageHints hints;
        hints.audio.config = config.data();
        hints.audio.config_size = config.size();
        Staged out(GOLT_CODEC_NONE, GOLT_ACODEC_AAC, hints);
        const Bytes frame = Bytes(12, 0x55);
        out.audio(0, frame);
        EXPECT_EQ(out.finish().of(AUDIO).at(0).payload, hex(row.header) + hex(row.pce) + frame);
    }
}

}  // namespace
