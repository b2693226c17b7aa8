// The program golt, run through the shell as a user runs it, in a directory of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "bytes.h"
#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int DONE = 0, NOT_DONE = 1, BAD_USAGE = 2, DONE_WITH_FAULTS = 3;
constexpr size_t PACKETS = 1000;  // more than one write of the output

Bytes packet(uint32_t number)
{
    return Bytes{0x47, 0x1F, 0xFF, 0x10} + pattern(184, number);
}

// stamped: an M2TS file, otherwise the transport stream that has to come of it.
Bytes packets(bool stamped, size_t count = PACKETS)
{
    Bytes out;
    for (uint32_t i = 0; i < count; ++i)
        out += stamped ? be32(i) + packet(i) : packet(i);
    return out;
}

Mp4Track track(Mp4Track kind, size_t samples)
{
    for (uint32_t i = 0; i < samples; ++i) {
        kind.sample(nal(pattern(50, i)));
        kind.chunks.push_back(1);
    }
    return kind;
}

// 10 s long by its duration; pictures every half second, the last one at last_ms.
Bytes mkv(int last_ms)
{
    Bytes pictures;
    for (int time = 0; time <= last_ms; time += 500)
        pictures += simple_block(1, time, length_unit(pattern(50, 1)));
    return MkvFile().track(H264_TRACK).cluster(0, {pictures}).build();
}

class HostProgram : public ::testing::Test {
protected:
    struct Result {
        int status;
        std::string err;
    };

    HostProgram()
        : m_home(fs::current_path())
    {
        std::string name = (fs::temp_directory_path() / "golt_host_XXXXXX").string();
        fs::current_path(mkdtemp(name.data()));
        put("in.m2ts", packets(true));
    }
    ~HostProgram() override
    {
        const fs::path dir = fs::current_path();
        fs::current_path(m_home);
        fs::remove_all(dir);
    }

    static void put(const std::string &name, const Bytes &bytes)
    {
        std::ofstream(name, std::ios::binary)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    static Bytes get(const std::string &name)
    {
        std::ifstream file(name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }
    static Result golt(const std::string &arguments)
    {
        const int status = std::system((GOLT_COMMAND " remux " + arguments + " 2>err").c_str());
        const Bytes err = get("err");
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, {err.begin(), err.end()}};
    }

private:
    fs::path m_home;
};

TEST_F(HostProgram, WritesTheStreamAndNothingElse)
{
    put("bytes_decide.mp4", packets(true));
    put("NAME_DECIDES.MTS", Bytes(100) + packets(true));
    const struct {
        const char *arguments, *output;
        int status;
    } rows[] = {
        {"in.m2ts", "in.ts", DONE},
        {"in.m2ts other --frames 1000", "other", DONE},
        {"in.m2ts - >stream", "stream", DONE},
        {"in.m2ts /dev/stdout | cat >piped", "piped", DONE},
        {"in.m2ts closed.ts >&-", "closed.ts", DONE},
        {"in.m2ts bare.ts <&- >&- 2>&-; exit $?", "bare.ts", DONE},
        {"bytes_decide.mp4", "bytes_decide.ts", DONE},
        {"--format video/ts in.m2ts named.ts", "named.ts", DONE},
        // What is in front of the first packet is told of.
        {"NAME_DECIDES.MTS", "NAME_DECIDES.ts", DONE_WITH_FAULTS},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.arguments);
        EXPECT_EQ(golt(row.arguments).status, row.status);
        EXPECT_TRUE(get(row.output) == packets(false));
        EXPECT_FALSE(fs::exists(std::string(row.output) + ".part"));
    }
    EXPECT_THAT(golt("in.m2ts a").err, HasSubstr("a: 1000 frames, 188000 bytes"));
    EXPECT_EQ(golt("-q in.m2ts b").err, "");
}

TEST_F(HostProgram, RefusesAndLeavesNoFileBehind)
{
    put("old.ts", text("old"));
    put("begun.ts.part", text("old"));
    put("empty.mp4", {});
    put("text.txt", text("no medium at all"));
    put("text.m2ts", text("no medium at all"));
    put("tracks.mp4", Mp4File().build());
    put("video.mp4", Mp4File().add(track(Mp4Track::video(), 50)).build());
    fs::create_hard_link("in.m2ts", "linked.ts");
    const struct {
        const char *arguments;
        int status;
        const char *message;
    } rows[] = {
        {"", BAD_USAGE, "IN is required"},
        {"in.m2ts out --frames 0", BAD_USAGE, "--frames: 0 is no N"},
        {"in.m2ts out --frames -1", BAD_USAGE, "--frames: -1 is no N"},
        {"in.m2ts out --start 1:60", BAD_USAGE, "--start: 1:60 is no TIME"},
        {"in.m2ts out --to 4294967296", BAD_USAGE, "--to: 4294967296 is no TIME"},
        {"in.m2ts out --start 2000 --to 0:02", BAD_USAGE, "--to has to lie behind --start"},
        {"in.m2ts out --start 0", BAD_USAGE, "in.m2ts: the frames of m2ts have no times"},
        {"- out", NOT_DONE, "standard input: can't be sought in"},
        {"gone.mp4 out", NOT_DONE, "gone.mp4: No such file"},
        {". out", NOT_DONE, ".: Is a directory"},
        {"/dev/null out", NOT_DONE, "/dev/null: not a regular file"},
        {"empty.mp4 out", NOT_DONE, "empty.mp4: the file is empty"},
        {"text.txt out", NOT_DONE, "text.txt: format not recognised"},
        {"text.m2ts out", NOT_DONE, "text.m2ts: not a sound m2ts file"},
        {"in.m2ts out --format avi", NOT_DONE, "in.m2ts: format avi not supported"},
        {"tracks.mp4 out", NOT_DONE, "tracks.mp4: no video or sound"},
        {"video.mp4 out --start 2001", NOT_DONE, "video.mp4: no frame follows 00:00:02.001"},
        {"in.m2ts gone/out", NOT_DONE, "gone/out: No such file"},
        {"in.m2ts old.ts", NOT_DONE, "old.ts: exists already"},
        {"in.m2ts begun.ts", NOT_DONE, "begun.ts.part: is being written"},
        {"in.m2ts linked.ts --force", NOT_DONE, "linked.ts: is the input itself"},
        {"in.m2ts - >>in.m2ts", NOT_DONE, "standard output: is the input itself"},
        {"in.m2ts - >&-", NOT_DONE, "standard output: Bad file descriptor"},
        {"in.m2ts /dev/full", NOT_DONE, "/dev/full: No space left on device"},
        {"in.m2ts - >/dev/full", NOT_DONE, "standard output: No space left on device"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.arguments);
        const Result result = golt(row.arguments);
        EXPECT_EQ(result.status, row.status);
        EXPECT_THAT(result.err, HasSubstr(std::string("golt: ") + row.message));
        EXPECT_FALSE(fs::exists("out") || fs::exists("out.part"));
    }
    EXPECT_EQ(get("old.ts"), text("old"));
    EXPECT_TRUE(get("in.m2ts") == packets(true));
}

TEST_F(HostProgram, TellsOfAReaderThatGoesAway)
{
    // The output is larger than what a pipe holds.
    EXPECT_EQ(std::system("(" GOLT_COMMAND " remux -q in.m2ts - 2>said; echo $? >status) | true"),
              0);
    EXPECT_EQ(get("status"), text("1\n"));
    EXPECT_EQ(get("said"), text("golt: standard output: Broken pipe\n"));
}

TEST_F(HostProgram, ReplacesOnlyByForce)
{
    put("old.ts", text("old"));
    fs::create_symlink("old.ts", "link.ts");
    put("old.ts.part", text("old"));
    EXPECT_EQ(golt("--force in.m2ts link.ts").status, DONE);
    EXPECT_TRUE(fs::is_symlink("link.ts"));
    EXPECT_TRUE(get("old.ts") == packets(false));
    EXPECT_FALSE(fs::exists("old.ts.part"));
}

TEST_F(HostProgram, KnowsFormatsByTheirFirstBytes)
{
    for (const char *head : {"1A45DFA3", "49443303", "FFFB9064", "000000106674797069736F6D"}) {
        SCOPED_TRACE(head);
        put("file", hex(head) + Bytes(64));
        EXPECT_THAT(golt("file out --force").err, Not(HasSubstr("not recognised")));
    }
}

TEST_F(HostProgram, KeepsToTheTimesAsked)
{
    Mp4Track video = track(Mp4Track::video(), 100);  // 40 ms each
    video.stss = {1, 51};
    put("in.mp4", Mp4File().add(video).build());
    put("in.mp3", Mp3().frames(100).file);  // 0, 26, 52 ms and so on; frame 39 is at 1018
    const struct {
        const char *arguments;
        const char *report;
    } rows[] = {
        {"in.mp4", ": 100 frames, "},
        {"in.mp4 --frames 7", ": 7 frames, "},
        {"in.mp4 --to 1000", ": 25 frames, "},
        {"in.mp4 --to 00:00:01.001", ": 26 frames, "},
        {"in.mp4 --start 0:01.5", ": 50 frames, "},
        {"in.mp4 --start 1500 --to 0:03", ": 25 frames, "},
        {"in.mp4 --start 0 --frames 500", ": 100 frames, "},
        {"in.mp3 --start 0", ": 100 frames, "},
        {"in.mp3 --start 1000", ": 61 frames, "},
        {"in.mp3 --start 1000 --to 1100", ": 4 frames, "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.arguments);
        const Result result = golt(std::string("--force ") + row.arguments);
        EXPECT_EQ(result.status, DONE);
        EXPECT_THAT(result.err, HasSubstr(row.report));
    }
}

TEST_F(HostProgram, TellsASoundInputFromOneThatEndsEarly)
{
    Mp4Track slides = track(Mp4Track::video(), 6);
    slides.delta = 10000;
    Mp4Track day = track(Mp4Track::video(), 100);
    day.delta = 1000000;
    Mp4Track untimed = track(Mp4Track::video(), 50);
    untimed.duration = 0;
    const Mp4Track video = track(Mp4Track::video(), 100);
    const Bytes mp4 = Mp4File().add(video).build();
    const Bytes m2ts = packets(true, 10);
    const struct {
        const char *name;
        Bytes file;
        int status;
        const char *report;
    } rows[] = {
        {"whole mp4", mp4, DONE, ": 100 frames"},
        {"slides", Mp4File().add(slides).build(), DONE, ": 6 frames"},
        {"more than a day", Mp4File().add(day).build(), DONE, ", 27:30:00.000"},
        {"no duration", Mp4File().add(untimed).build(), DONE, ": 50 frames"},
        {"short sound", Mp4File().add(video).add(track(Mp4Track::audio(), 20)).build(), DONE, ""},
        {"long sound", Mp4File().add(video).add(track(Mp4Track::audio(), 500)).build(), DONE, ""},
        {"cut mp4", Bytes(mp4.begin(), mp4.end() - 2000), DONE_WITH_FAULTS,
         "ended early: at 00:00:02.440 of 00:00:04.000"},
        {"mkv with longer subtitles", mkv(8000), DONE, ": 17 frames"},
        {"mkv that breaks off", mkv(5000), DONE_WITH_FAULTS, "at 00:00:05.000 of 00:00:10.000"},
        {"whole m2ts", m2ts, DONE, ": 10 frames"},
        {"cut m2ts", Bytes(m2ts.begin(), m2ts.end() - 1), DONE_WITH_FAULTS,
         "191 of its 1919 bytes are in none"},
        {"sync lost", m2ts + Bytes(192) + m2ts, DONE_WITH_FAULTS, "2112 of its 4032 bytes"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        put("file", row.file);
        const Result result = golt("file out --force");
        EXPECT_EQ(result.status, row.status);
        EXPECT_THAT(result.err, HasSubstr(row.report));
        EXPECT_TRUE(fs::exists("out"));
        EXPECT_EQ(golt("file - --frames 3 >/dev/null").status, DONE) << "stopped by the user";
    }
    put("untimed.mp4", Mp4File().add(untimed).build());
    EXPECT_EQ(golt("untimed.mp4 out --force --to 1:00").status, DONE) << "an end that isn't there";
}

}  // namespace
