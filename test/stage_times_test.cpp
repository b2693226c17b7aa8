// Times that the stage knows better than what it is given.

#include "staged.h"

namespace {

// Of MPEG audio the library counts: 26 ms for each frame would be 1 s too little after 8,000 of them.
TEST(Stage, CountsMoreExactlyThanWhatItIsTold)
{
    golt::StageHints hints;
    hints.audio_durations = golt::Durations::COUNTED;
    Staged out(GOLT_CODEC_NONE, GOLT_ACODEC_MP3, hints, 44100);
    for (uint64_t i = 0; i < 500; ++i)
        out.audio(26 * i, hex("FFFB9000") + Bytes(413, 0x55));
    EXPECT_EQ(out.finish().of(AUDIO).back().pts,
              90000 + (int64_t{499} * 1152 * 90000 + 22050) / 44100);
}

// The clock goes on with the audio. Pictures after the pause can't be decoded at the times of those before it.
TEST(Stage, DecodesInTimeAfterAPause)
{
    golt::StageHints hints;
    hints.audio_durations = golt::Durations::TOLD;
    Staged out(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, hints);
    const std::vector<uint64_t> pts = {0, 120, 40, 80, 9000, 9120, 9040, 9080};
    const std::vector<int64_t> dts = {-40, 0, 40, 80, 8960, 9000, 9040, 9080};
    uint64_t audio_ms = 0;
    for (const uint64_t each : pts) {
        for (; audio_ms < each; audio_ms += 20)
            out.audio(audio_ms, Bytes(50, 0x55));
        out.video(each, each % 1000 == 0 ? unit(sps_of(1)) + unit(PPS) + slice(0x65, 9, 1)
                                         : slice(0x41, 9, 1));
    }
    const std::vector<FinishedUnit> pictures = out.finish().of(VIDEO);
    ASSERT_EQ(pictures.size(), dts.size());
    for (size_t i = 0; i < dts.size(); ++i)
        EXPECT_EQ((pictures[i].dts - out.stage.shift()) / 90, dts[i]) << i;
    EXPECT_EQ(out.stage.counts().late, 0u);
}

// Times of 33 bits start again after 26.5 hours, at frame 4,110,418. What begins near there or later goes on as the whole
// does; without a hint the two streams are at least near one another.
TEST(Stage, BeginsWhereTimesHaveStartedAgain)
{
    constexpr int64_t SAMPLES = 1024, RATE = 44100, RANGE = int64_t{1} << 33, COUNT = 60;
    const auto exact = [](int64_t frame) { return (frame * SAMPLES * 90000 + RATE / 2) / RATE; };
    for (const int64_t first : {4110000, 4110410, 4110419, 9000000}) {
        for (const bool f_hint : {true, false}) {
            SCOPED_TRACE(first);
            golt::StageHints hints;
            hints.audio_durations = golt::Durations::TOLD;
            if (f_hint) hints.audio_grid = {0, SAMPLES, RATE};
            if (f_hint) hints.begin = exact(first) - 3600 * 90000;
            Staged part(GOLT_VCODEC_H264, GOLT_ACODEC_AAC, hints, RATE);
            const auto ms = [&](int64_t i) { return static_cast<uint64_t>(exact(first + i) / 90); };
            part.audio(ms(10), Bytes(50, 0x55));
            for (int64_t i = 0; i < COUNT; ++i)
                part.video(ms(i), (i == 0 ? unit(sps_of(0)) + unit(PPS) : Bytes()) +
                                      unit(slice(i == 0 ? 0x65 : 0x41, 20, 1)))
                    .audio(ms(11 + i), Bytes(50, 0x55));
            const FinishedStream finished = part.finish();
            EXPECT_EQ(part.stage.counts().jumps, 0u);
            EXPECT_EQ(part.stage.shift(), 90000);
            const int64_t at = exact(first + 10 + COUNT) + 90000,
                          off = finished.of(AUDIO).back().pts - at;
            EXPECT_EQ(f_hint ? off % RANGE : 0, 0) << off;
            EXPECT_LE(std::abs(off % RANGE), 2 * 90);
        }
    }
}

}  // namespace
