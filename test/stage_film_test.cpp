// Films by chance, sent through the stage: all rules have to hold for what comes out.

#include <algorithm>
#include <cmath>
#include <random>

#include "staged.h"
#include "ts_checker.h"

namespace {

struct Frame {
    bool f_video;
    bool f_key;
    int64_t time_ms;
    double order;  // in the file
    Bytes in, out;
};

class Film {
public:
    explicit Film(uint32_t seed)
        : m_random(seed)
    {
        depth = upto(4);
        f_still_audio = upto(1) == 1;
        make_video();
        if (upto(4) > 0) make_audio();
        std::stable_sort(frames.begin(), frames.end(),
                         [](const Frame &a, const Frame &b) { return a.order < b.order; });
    }

    std::vector<Frame> frames;
    int depth;
    bool f_still_audio;
    bool has_audio = false;

private:
    uint32_t any() { return static_cast<uint32_t>(m_random()); }
    int upto(int most) { return static_cast<int>(any() % static_cast<uint32_t>(most + 1)); }

    // Pictures in an order in which at most depth of those that come before one are shown after it.
    void make_video()
    {
        const int count = 60 + upto(200);
        const double step = 1000.0 / (5 + upto(60));
        const bool f_varies = upto(2) == 0, f_sets_before_slices = upto(1) == 1;
        std::vector<double> times;
        for (double time = 0; static_cast<int>(times.size()) < count;
             time += f_varies ? 5 + upto(120) : step) {
            if (upto(20) > 0) times.push_back(time);  // else it is lost
        }
        std::vector<bool> f_done(times.size());
        size_t lowest = 0;
        int ahead = 0;
        bool f_sets_written = false;
        for (size_t number = 0; number < times.size(); ++number) {
            size_t next = lowest;
            const size_t far = lowest + 1 + static_cast<size_t>(upto(5));
            if (ahead < depth && number > 0 && far < times.size() && !f_done[far] && upto(1) == 1)
                next = far;
            const bool f_key = number == 0 || (ahead == 0 && next == lowest && upto(9) == 0);
            f_done[next] = true;
            ahead += next != lowest;
            for (; lowest < times.size() && f_done[lowest]; ++lowest)
                ahead -= lowest != next;
            add_picture(f_key, times[next], times[number], f_sets_before_slices, f_sets_written);
            f_sets_written = true;
        }
    }

    void add_picture(bool f_key, double time, double order, bool f_sets_before_slices,
                     bool f_sets_written)
    {
        const Bytes sets = unit(sps_of(depth)) + unit(PPS);
        Frame frame = {true, f_key, std::lround(time), order, {}, {}};
        const int slices = 1 + (upto(3) == 0 ? upto(3) : 0);
        for (int i = 0; i < slices; ++i) {
            const auto size = static_cast<size_t>(1 + (upto(9) == 0 ? upto(90000) : upto(4000)));
            const Bytes one = slice(f_key ? 0x65 : 0x41, size, any());
            if (f_key && (f_sets_before_slices || (i == 0 && !f_sets_written))) frame.in += sets;
            frame.in += one;
            frame.out += one;
        }
        frame.out = AUD + (f_key ? sets : Bytes()) + frame.out;
        frames.push_back(frame);
    }

    void make_audio()
    {
        has_audio = true;
        const double end = frames.back().order, delay = upto(1) == 1 ? 0 : upto(700);
        int64_t number = 0;
        for (double time = upto(500); time < end; ++number) {
            const Bytes bytes = pattern(static_cast<size_t>(1 + upto(900)), any());
            Frame frame = {false,
                           false,
                           std::lround(time),
                           time + (delay > 0 ? upto(static_cast<int>(delay)) : 0),
                           bytes,
                           bytes};
            // Of one stream, frames stay in order.
            if (number > 0) frame.order = std::max(frame.order, frames.back().order + 1e-6);
            frames.push_back(frame);
            time += 1024.0 / 48;
            if (!f_still_audio && upto(50) == 0) time += upto(400);
        }
    }

    std::mt19937 m_random;
};

void write(Staged &out, const Film &film)
{
    int64_t first_audio = -1;
    for (const Frame &frame : film.frames) {
        if (!frame.f_video && first_audio < 0) first_audio = frame.time_ms;
        const int64_t time = !frame.f_video && film.f_still_audio ? first_audio : frame.time_ms;
        if (frame.f_video)
            out.video(static_cast<uint64_t>(time), frame.in);
        else
            out.audio(static_cast<uint64_t>(time), frame.in);
    }
}

void expect_frames(const FinishedStream &finished, const Film &film, int64_t shift)
{
    std::vector<FinishedUnit> units[2] = {finished.of(AUDIO), finished.of(VIDEO)};
    size_t next[2] = {0, 0};
    int64_t last_dts = -1;
    for (const Frame &frame : film.frames) {
        ASSERT_LT(next[frame.f_video], units[frame.f_video].size());
        const FinishedUnit &each = units[frame.f_video][next[frame.f_video]++];
        const Bytes payload =
            frame.f_video ? each.payload : Bytes(each.payload.begin() + 7, each.payload.end());
        ASSERT_EQ(payload, frame.out);
        ASSERT_NEAR(static_cast<double>(each.pts - shift), static_cast<double>(frame.time_ms * 90),
                    180);
        ASSERT_LE(each.dts, each.pts);
        ASSERT_EQ(each.length, each.size > 65535 ? 0 : each.size);
        if (!frame.f_video) continue;
        ASSERT_GT(each.dts, last_dts);
        ASSERT_EQ(each.f_random_access, frame.f_key);
        last_dts = each.dts;
    }
    ASSERT_EQ(next[0] + next[1], finished.units.size());
}

void expect_clock(const FinishedStream &finished)
{
    int64_t last = -1;
    for (const FinishedClock &each : finished.clock) {
        ASSERT_EQ(each.pid, VIDEO);
        ASSERT_GT(each.pcr, last);
        ASSERT_TRUE(last < 0 || each.pcr - last <= 40 * 90);
        ASSERT_FALSE(each.f_jumps);
        last = each.pcr;
    }
    // From the end on: no time to come is less than 200 ms ahead of the clock.
    int64_t lowest = INT64_MAX;
    size_t unit_count = finished.units.size();
    for (size_t i = finished.clock.size(); i-- > 0;) {
        for (; unit_count > 0 && finished.units[unit_count - 1].packet >= finished.clock[i].packet;
             --unit_count)
            lowest = std::min(lowest, finished.units[unit_count - 1].dts);
        ASSERT_GE(lowest - finished.clock[i].pcr, 200 * 90)
            << "packet " << finished.clock[i].packet;
    }
    ASSERT_EQ(unit_count, 0u) << "units before the clock";
}

void expect_tables(const FinishedStream &finished)
{
    ASSERT_EQ(finished.pats.size(), finished.pmts.size());
    ASSERT_EQ(finished.pats.at(0), 0u);
    int64_t last = -1;
    size_t clock = 0;
    for (const size_t pat : finished.pats) {
        while (clock + 1 < finished.clock.size() && finished.clock[clock + 1].packet < pat)
            ++clock;
        const int64_t now = finished.clock[clock].pcr;
        ASSERT_TRUE(last < 0 || now - last <= 100 * 90) << "packet " << pat;
        last = now;
    }
    ASSERT_LE(finished.clock.back().pcr - last, 100 * 90);
}

struct Problems final : TsEvents {
    std::vector<std::string> all;
    void on_problem(const TsProblem &problem) override
    {
        if (!problem.f_unusual)
            all.push_back(std::to_string(problem.packet) + ": " + problem.what());
    }
};

TEST(Stage, KeepsAllRulesForRandomFilms)
{
    for (uint32_t seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        const Film film(seed);
        golt::StageHints hints;
        hints.audio_durations =
            film.f_still_audio ? golt::Durations::NOT_TOLD : golt::Durations::TOLD;
        Staged out(GOLT_VCODEC_H264, film.has_audio ? GOLT_ACODEC_AAC : GOLT_CODEC_NONE, hints);
        write(out, film);
        const FinishedStream finished = out.finish();
        expect_frames(finished, film, out.stage.shift());
        expect_clock(finished);
        expect_tables(finished);
        EXPECT_EQ(out.stage.counts().late, 0u);
        EXPECT_EQ(out.stage.counts().misordered, 0u);
        Problems problems;
        TsChecker checker(problems);
        checker.feed(out.stream.data(), out.stream.size());
        checker.finish();
        EXPECT_THAT(problems.all, ::testing::IsEmpty());
        // Flushed after each frame it is the same stream.
        Staged live(GOLT_VCODEC_H264, film.has_audio ? GOLT_ACODEC_AAC : GOLT_CODEC_NONE, hints);
        live.f_flushed = true;
        write(live, film);
        live.finish();
        EXPECT_TRUE(live.stream == out.stream);
        if (HasFailure()) return;
    }
}

}  // namespace
