// The host program as a user runs it: sources made by real encoders and muxers, remuxed, judged by
// the checker of transport streams, and decoded again. What comes out decodes to the frames of the
// source.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "host_double.h"
#include "tcache.h"
#include "tools.h"
#include "ts_checker.h"

namespace {

using ::testing::IsEmpty;

// All channels of a sound differ, so that none can be taken for another. One thread: with several
// the encoder cuts pictures into slices and rates them by chance.
const std::string FFMPEG = "ffmpeg -v error -nostdin -fflags +bitexact -flags +bitexact";
const std::string PICTURE = FFMPEG + " -f lavfi -i testsrc2=s=176x144:r=25:d=2";
const std::string NOISE = FFMPEG + " -f lavfi -i 'nullsrc=s=640x480:r=5:d=1,geq=random(1)*255:128'";
const std::string MONO = " -f lavfi -i 'aevalsrc=sin(2800*t):d=2'";
const std::string STEREO = " -f lavfi -i 'aevalsrc=sin(2800*t)|sin(5000*t)/2:d=2'";
const std::string SURROUND =
    " -f lavfi -i 'aevalsrc=sin(2800*t)|sin(5e3*t)|sin(700*t)|sin(99*t)|sin(t)|sin(9*t):c=5.1:d=2'";
const std::string H264 = " -c:v libx264 -threads 1 -g 15 -bf 3";
const std::string MP4 = PICTURE + STEREO + H264;
const std::string MKVMERGE = " t.mp4 && mkvmerge -q -o a.mkv t.mp4 ";

// The source is decoded whole: no edit list and no trimming takes the encoder's delay away.
const char *const WHOLE_MP4 = "-ignore_editlist 1";
const char *const WHOLE = "-flags2 +skip_manual";

// ffmpeg's Matroska files don't tell how long a sound frame lasts, and the program says so.
constexpr int NO_SOUND_CLOCK = 3;

struct Case {
    const char *name;
    const char *file;      // one letter and the format as extension
    std::string making;    // a command line of the shell
    const char *decoding;  // options of ffmpeg for the source
    int status = 0;
    uint8_t channels = 0;    // to put into an MP4's sample entry, where ffmpeg always writes 2
    size_t info_frames = 0;  // sound frames of LAME's own in front, which ffmpeg leaves out
};

void PrintTo(const Case &test, std::ostream *to)
{
    *to << test.name;
}

const Case cases[] = {
    {"Mp4Aac44100", "a.mp4", MP4 + " -bf 0 -ar 44100 a.mp4", WHOLE_MP4},
    {"Mp4Aac48000", "a.mp4", MP4 + " -ar 48000 -movflags +faststart a.mp4", WHOLE_MP4},
    {"Mp4Slices", "a.mp4", MP4 + " -slices 4 -ar 22050 a.mp4", WHOLE_MP4},
    {"Mp4AacMono", "a.mp4", PICTURE + MONO + H264 + " a.mp4", WHOLE_MP4, 0, 1},
    {"Mp4AacSurround", "a.mp4", PICTURE + SURROUND + H264 + " a.mp4", WHOLE_MP4, 0, 6},
    {"Mp4Mp3", "a.mp4", MP4 + " -c:a libmp3lame a.mp4", WHOLE_MP4},
    {"Mp4Ac3", "a.mp4", MP4 + " -c:a ac3 -movflags +faststart a.mp4", WHOLE_MP4},
    {"Mp4Ac3Surround", "a.mp4", PICTURE + SURROUND + H264 + " -c:a ac3 a.mp4", WHOLE_MP4},
    {"Mp4Eac3", "a.mp4", MP4 + " -c:a eac3 a.mp4", WHOLE_MP4},
    {"Mp4PicturesAbove64KiB", "a.mp4", NOISE + STEREO + H264 + " -qp 10 a.mp4", WHOLE_MP4},
    {"Mp4VideoOnly", "a.mp4", PICTURE + H264 + " a.mp4", WHOLE_MP4},
    {"Mp4AudioOnly", "a.mp4", FFMPEG + STEREO + " a.mp4", WHOLE_MP4},

    {"MkvAac", "a.mkv", MP4 + " -c:a aac a.mkv", WHOLE, NO_SOUND_CLOCK},
    {"MkvMp3", "a.mkv", MP4 + " -c:a libmp3lame a.mkv", WHOLE, NO_SOUND_CLOCK},
    {"MkvAc3CuesInFront", "a.mkv", MP4 + " -c:a ac3 -cues_to_front 1 a.mkv", WHOLE, NO_SOUND_CLOCK},
    {"MkvmergeAac", "a.mkv", MP4 + " -c:a aac" + MKVMERGE, WHOLE},
    {"MkvmergeMp3", "a.mkv", MP4 + " -c:a libmp3lame" + MKVMERGE + "--engage lacing_xiph", WHOLE},
    {"MkvmergeAc3", "a.mkv", MP4 + " -c:a ac3" + MKVMERGE + "--engage no_simpleblocks", WHOLE},
    {"MkvmergeAudioOnly", "a.mka",
     FFMPEG + STEREO + " -c:a ac3 t.ac3 && mkvmerge -q -o a.mka --timestamp-scale 1000000 t.ac3",
     WHOLE},

    {"Mp3ConstantRate", "a.mp3", FFMPEG + STEREO + " -b:a 128k a.mp3", WHOLE, 0, 0, 1},
    {"Mp3VariableRate", "a.mp3", FFMPEG + MONO + " -q:a 4 -ar 48000 a.mp3", WHOLE, 0, 0, 1},
    {"Mp3BareFrames", "a.mp3", FFMPEG + STEREO + " -write_xing 0 -id3v2_version 0 a.mp3", WHOLE},
    {"Mp3LayerTwo", "a.mp3", FFMPEG + STEREO + " -c:a mp2 -f mp2 a.mp3", WHOLE},
};

class Remux : public ::testing::Test {
protected:
    TempFolder m_folder;
    Bytes m_source;
    Bytes m_output;
    TsReport m_report;

    // Makes the source and remuxes it, from --start on if that is in options.
    void remux(const Case &test, const std::string &options = "")
    {
        ASSERT_EQ(run(test.making + " 2>&1").status, 0);
        m_source = read_file(test.file);
        if (test.channels != 0) {
            constexpr size_t CHANNEL_COUNT_AT = 20;  // behind the name, of 16 bits
            const std::string bytes(m_source.begin(), m_source.end());
            m_source.at(bytes.find("mp4a") + CHANNEL_COUNT_AT + 1) = test.channels;
            write_file(test.file, m_source);
        }
        const Outcome remuxed =
            run(GOLT_COMMAND " remux -q " + options + " " + test.file + " out.ts 2>&1");
        ASSERT_EQ(remuxed.status, test.status) << remuxed.output;
        EXPECT_EQ(remuxed.output.empty(), test.status == 0) << remuxed.output;
        m_output = read_file("out.ts");
        m_report = check_ts(m_output);
        EXPECT_THAT(m_report.problems, IsEmpty());
        EXPECT_THAT(lines_of("ffprobe -v error out.ts 2>&1"), IsEmpty());
    }

    std::vector<double> times_of(uint16_t pid) const
    {
        std::vector<double> times;
        for (const TsPes &pes : m_report.pes)
            if (pes.pid == pid) times.push_back(static_cast<double>(pes.pts.value_or(0)) / 90);
        return times;
    }
};

class EndToEnd : public Remux, public ::testing::WithParamInterface<Case> {
protected:
    // Each packet of the source has its PES packet, within a millisecond.
    void expect_times(const std::string &kind, uint16_t pid)
    {
        const auto packets =
            lines_of(std::string("ffprobe -v error ") + GetParam().decoding +
                     " -show_entries packet=pts_time -of csv=p=0 -select_streams " + kind + " " +
                     GetParam().file);
        const std::vector<double> times = times_of(pid);
        ASSERT_EQ(times.size(), packets.size());
        for (size_t i = 0; i < times.size(); ++i)
            ASSERT_NEAR(times[i], std::stod(packets[i]) * 1000, 1.002) << kind << " packet " << i;
    }
};

TEST_P(EndToEnd, DecodesToTheFramesOfTheSource)
{
    const Case &test = GetParam();
    ASSERT_NO_FATAL_FAILURE(remux(test));
    expect_times("v", 0x100);
    // ffmpeg counts an MP3 file's times from behind the encoder's delay.
    if (test.status == 0 && std::string(test.file) != "a.mp3") expect_times("a", 0x101);
    EXPECT_TRUE(decode("out.ts", "v") == decode(test.file, "v", test.decoding));
    std::vector<std::string> sound = decode("out.ts", "a");
    ASSERT_GE(sound.size(), test.info_frames);
    sound.erase(sound.begin(), sound.begin() + static_cast<ptrdiff_t>(test.info_frames));
    EXPECT_TRUE(sound == decode(test.file, "a", test.decoding));

    // Straight from the host, without the read-ahead, it is the same stream.
    g_TCacheEnabled = false;
    EXPECT_TRUE(remux_file(test.file + 2, m_source) == m_output);
    g_TCacheEnabled = true;
}

INSTANTIATE_TEST_SUITE_P(Files, EndToEnd, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<Case> &row) { return row.param.name; });

TEST_F(Remux, PassesThePacketsOfM2tsOn)
{
    ASSERT_NO_FATAL_FAILURE(
        remux({"", "a.m2ts", MP4 + " -c:a ac3 -mpegts_m2ts_mode 1 a.m2ts", ""}));
    constexpr size_t RECORD_SIZE = 192, STAMP_SIZE = 4;
    Bytes packets;
    for (size_t i = 0; i < m_source.size(); ++i)
        if (i % RECORD_SIZE >= STAMP_SIZE) packets.push_back(m_source[i]);
    EXPECT_TRUE(m_output == packets);
}

TEST_F(Remux, StartsMatroskaAtAPictureThatStandsAlone)
{
    for (const char *start : {"600", "1000", "1799"}) {
        const Case mkv = {"", "a.mkv", MP4 + " -y -c:a ac3" + MKVMERGE, ""};
        ASSERT_NO_FATAL_FAILURE(remux(mkv, std::string("--force --start ") + start));
        EXPECT_THAT(lines_of("ffmpeg -v error -nostdin -i out.ts -f null - 2>&1"), IsEmpty());
        EXPECT_EQ(decode("out.ts", "v").size(), times_of(0x100).size());
        EXPECT_LT(times_of(0x100).size(), 40u);
    }
}

// The frame that a seek lands on is found by its bytes in the plain run.
TEST_F(Remux, SeeksInMp3ToWithinAFrame)
{
    ASSERT_EQ(run(FFMPEG + " -f lavfi -i anoisesrc=d=60 -b:a 128k a.mp3").status, 0);
    Source source(read_file("a.mp3"));
    Driver driver;
    PELA::IAVDemuxer demux = driver->createDemuxer("mp3", &source, source.size());
    const auto next = [&](GOLT_frame_t *frame) {
        return demux->readFrame(reinterpret_cast<PELA::IAVFrame>(frame));
    };
    const std::vector<Frame> plain = read_frames(next);
    driver->destroyDemuxer(demux);
    source.seek(0, 0);  // where a new demuxer takes it to stand
    demux = driver->createDemuxer("mp3", &source, source.size());
    for (const uint32_t time_ms :
         {0u, 30000u, 2000u, 58000u, 57000u, 500u, 45000u, 44900u, 12345u, 33333u}) {
        ASSERT_EQ(read_frames(next, 40).size(), 40u);
        ASSERT_TRUE(demux->seekToTime(time_ms));
        const std::vector<Frame> landed = read_frames(next, 1);
        ASSERT_EQ(landed.size(), 1u) << time_ms;
        const auto same = std::find_if(plain.begin(), plain.end(), [&](const Frame &frame) {
            return frame.data == landed[0].data;
        });
        ASSERT_NE(same, plain.end()) << time_ms;
        EXPECT_LE(std::abs(static_cast<double>(same->time_ms) - time_ms), 27) << time_ms;
    }
    driver->destroyDemuxer(demux);
}

}  // namespace
