// The host program as a user runs it: sources made by ffmpeg, remuxed, judged by the checker of
// transport streams, and decoded again. What comes out decodes to the frames of the source.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host_double.h"
#include "mp4_builder.h"
#include "tcache.h"
#include "tools.h"
#include "ts_checker.h"

namespace {

using ::testing::IsEmpty;

// Inputs of ffmpeg. All channels of a sound differ, so that none can be taken for another.
const std::string PICTURE = " -f lavfi -i testsrc2=s=176x144:r=25:d=2";
const std::string NOISE = " -f lavfi -i 'nullsrc=s=640x480:r=5:d=1,geq=random(1)*255:128:128'";
const std::string MONO = " -f lavfi -i 'aevalsrc=sin(2800*t):d=2'";
const std::string STEREO = " -f lavfi -i 'aevalsrc=sin(2800*t)|sin(5000*t)/2:d=2'";
const std::string SURROUND =
    " -f lavfi -i 'aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=2'";

// One thread: with several the encoder cuts pictures into slices and rates them by chance.
const std::string H264 = " -c:v libx264 -threads 1";
const std::string FASTSTART = " -movflags +faststart";

// ffmpeg writes 2 there whatever the stream has, and that's what a player gets told.
void set_channels(Bytes &mp4, uint8_t channels)
{
    constexpr size_t CHANNEL_COUNT_AT = 24;  // in an AudioSampleEntry, of 16 bits
    mp4.at(find_box(mp4, "mp4a") + CHANNEL_COUNT_AT + 1) = channels;
}

struct Case {
    const char *name;
    const char *file;            // one letter and the format as extension
    std::string arguments;       // of ffmpeg, which makes the file
    void (*patch)(Bytes &file);  // may be null
    const char *decoding;        // options of ffmpeg for the source
};

void PrintTo(const Case &test, std::ostream *to)
{
    *to << test.name;
}

// Edit lists are not looked at, so the source is decoded without its own: with the encoder's delay.
const char *const WHOLE = "-ignore_editlist 1";

const Case cases[] = {
    {"Aac44100", "a.mp4", PICTURE + STEREO + H264 + " -bf 0 -c:a aac -ar 44100", nullptr, WHOLE},
    {"Aac48000AndBFrames", "a.mp4",
     PICTURE + STEREO + H264 + " -bf 3 -c:a aac -ar 48000" + FASTSTART, nullptr, WHOLE},
    {"Aac22050AndSlices", "a.mp4", PICTURE + STEREO + H264 + " -slices 4 -c:a aac -ar 22050",
     nullptr, WHOLE},
    {"AacMono", "a.mp4", PICTURE + MONO + H264 + " -c:a aac" + FASTSTART,
     [](Bytes &file) { set_channels(file, 1); }, WHOLE},
    {"AacSurround", "a.mp4", PICTURE + SURROUND + H264 + " -c:a aac" + FASTSTART,
     [](Bytes &file) { set_channels(file, 6); }, WHOLE},
    {"Mp3", "a.mp4", PICTURE + STEREO + H264 + " -c:a libmp3lame", nullptr, WHOLE},
    {"Ac3", "a.mp4", PICTURE + STEREO + H264 + " -c:a ac3", nullptr, WHOLE},
    {"Ac3Surround", "a.mp4", PICTURE + SURROUND + H264 + " -c:a ac3" + FASTSTART, nullptr, WHOLE},
    {"Eac3", "a.mp4", PICTURE + STEREO + H264 + " -c:a eac3", nullptr, WHOLE},
    {"PicturesAbove64KiB", "a.mp4", NOISE + STEREO + H264 + " -qp 10 -c:a aac", nullptr, WHOLE},
    {"VideoOnly", "a.mp4", PICTURE + H264, nullptr, WHOLE},
    {"AudioOnly", "a.mp4", STEREO + " -c:a aac", nullptr, WHOLE},
};

class Remux : public ::testing::Test {
protected:
    TempFolder m_folder;
    Bytes m_source;
    Bytes m_output;
    TsReport m_report;

    // Makes the source and remuxes it.
    void remux(const Case &test)
    {
        const std::string in = m_folder / test.file, out = m_folder / "out.ts";
        const Outcome made = run("ffmpeg -v error -nostdin" + test.arguments +
                                 " -fflags +bitexact -flags +bitexact '" + in + "' 2>&1");
        ASSERT_EQ(made.status, 0) << made.output;
        m_source = read_file(in);
        if (test.patch != nullptr) {
            test.patch(m_source);
            write_file(in, m_source);
        }
        const Outcome remuxed =
            run(GOLT_COMMAND " remux '" + in + "' '" + out + "' --force -q 2>&1");
        ASSERT_EQ(remuxed.status, 0) << remuxed.output;
        EXPECT_EQ(remuxed.output, "");
        m_output = read_file(out);
        m_report = check_ts(m_output);
        EXPECT_THAT(m_report.problems, IsEmpty());
        EXPECT_EQ(run("ffprobe -v error '" + out + "' 2>&1").output, "");

        // Straight from the host, without the read-ahead, it is the same stream.
        g_TCacheEnabled = false;
        EXPECT_TRUE(remux_file(test.file + 2, m_source) == m_output);
        g_TCacheEnabled = true;
    }
};

class EndToEnd : public Remux, public ::testing::WithParamInterface<Case> {
protected:
    // Each packet of the source has its PES packet.
    void expect_times(const char *kind, uint16_t pid)
    {
        std::vector<double> out;
        for (const TsPes &pes : m_report.pes) {
            if (pes.pid == pid) out.push_back(static_cast<double>(pes.pts.value_or(0)) / 90);
        }
        const auto in = packet_times(m_folder / GetParam().file, kind, GetParam().decoding);
        ASSERT_EQ(out.size(), in.size());
        for (size_t i = 0; i < in.size(); ++i) {
            // Whole milliseconds go on, the fraction is cut off. ffprobe rounds to microseconds.
            ASSERT_NEAR(out[i], in[i] - 0.5, 0.502) << kind << " packet " << i;
        }
    }
};

TEST_P(EndToEnd, DecodesToTheFramesOfTheSource)
{
    ASSERT_NO_FATAL_FAILURE(remux(GetParam()));
    expect_times("v", 0x100);
    expect_times("a", 0x101);
    const auto before = decode(m_folder / GetParam().file, GetParam().decoding);
    const auto after = decode(m_folder / "out.ts");
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(after.size(), before.size());
    for (const auto &[stream, frames] : before) {
        const auto same = after.find(stream);
        ASSERT_NE(same, after.end());
        EXPECT_EQ(same->second.size(), frames.size());
        EXPECT_TRUE(same->second == frames) << "stream " << stream;
    }
}

INSTANTIATE_TEST_SUITE_P(Mp4, EndToEnd, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<Case> &row) { return row.param.name; });

TEST_F(Remux, PassesThePacketsOfM2tsOn)
{
    const Case m2ts = {"", "a.m2ts", PICTURE + STEREO + H264 + " -c:a ac3 -mpegts_m2ts_mode 1",
                       nullptr, ""};
    ASSERT_NO_FATAL_FAILURE(remux(m2ts));
    constexpr size_t RECORD_SIZE = 192, STAMP_SIZE = 4;
    Bytes packets;
    for (size_t i = 0; i < m_source.size(); ++i) {
        if (i % RECORD_SIZE >= STAMP_SIZE) packets.push_back(m_source[i]);
    }
    EXPECT_TRUE(m_output == packets);
}

}  // namespace
