#include "plot.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include <fmt/format.h>

#include "io/interrupt.h"
#include "io/output.h"
#include "io/printer.h"
#include "stream/scan.h"
#include "stream/time_text.h"
#include "stream/timeline.h"

namespace {

// Seeks to find sync points, and how many frames may come until a picture does.
constexpr int PROBES = 120;
constexpr int MOST_FRAMES_TO_PICTURE = 256;

/// Fills the timeline; afterwards it waits for the picture that a seek lands on.
class Plotter final : public FrameUser {
public:
    Timeline timeline;
    Totals totals;
    std::set<int64_t> sync_points;
    bool f_probing = false;
    bool f_landed = false;
    int other_landings = 0;

    void on_frame(const StreamFrame &frame) override;

private:
    std::optional<int64_t> m_video, m_audio;  // the latest times
};

/// A panel of the picture: a place for values, and its scale.
struct Panel {
    double top, bottom;  // places of highest and lowest value
    double lowest, highest;

    double y(double value) const
    {
        return bottom - (bottom - top) * (value - lowest) / (highest - lowest);
    }
};

class Drawing {
public:
    Drawing(const Timeline &timeline, Printer &printer)
        : m_timeline(timeline)
        , m_printer(printer)
    {
    }
    void draw(const std::string &title, const Plotter &plotter, bool f_probed);

private:
    void draw_frame(const std::string &title);
    void draw_rates();
    void draw_distance();
    void draw_sync_points(const Plotter &plotter, bool f_probed);
    void draw_time_axis();
    template <typename Value>
    void area(const char *style, const Panel &panel, Value value, bool f_filled);
    void line(const char *style, double x1, double y1, double x2, double y2);
    void text(const char *style, double x, double y, const std::string &words);
    double x(double seconds) const;

    const Timeline &m_timeline;
    Printer &m_printer;
};

void probe(Pump &pump, StreamFrames &frames, Plotter &plotter);
double nice_step(double range, int steps);
double nice_time_step(double seconds, int steps);

}  // namespace

ExitStatus plot(const PlotOptions &options, Descriptor standard_output)
{
    Input input(options.input);
    const std::string &path = input.source().path();
    Output output(options.output, std::move(standard_output), input.source().status(),
                  options.f_force);
    Plotter plotter;
    StreamFrames frames(0, plotter);
    Pump pump(input, frames);
    read_all(input, pump, frames);
    if (pump.frames() == 0) throw NotDone(path, pump.why_nothing_came());
    if (plotter.timeline.is_empty()) throw NotDone(path, "no frame in it has a time");
    const std::string fault = pump.fault_in_input();

    // At a server each seek would be a request. Audio can begin anywhere.
    const bool f_probe = !is_url(path) && input.format().f_times && stop_signal() == 0 &&
                         pump.content().videoCodec != PELA::VIDEO_CODEC_UNKNOWN;
    if (f_probe) probe(pump, frames, plotter);

    Printer printer(output.descriptor(), output.name());
    Drawing(plotter.timeline, printer)
        .draw(std::filesystem::path(path).filename().string(), plotter, f_probe);
    printer.flush();
    output.complete();
    return end_command(path, fault);
}

namespace {

void Plotter::on_frame(const StreamFrame &frame)
{
    const bool f_video = is_video(frame.codec);
    if (f_probing) {
        if (!f_video || f_landed || !frame.time) return;
        f_landed = true;
        // Open groups begin with parameter sets, but without an IDR picture.
        const FrameContent &content = frame.content;
        if (content.has(nal::IDR) || content.has(nal::SPS) || content.has(mpeg2::SEQUENCE))
            sync_points.insert(*frame.time);
        else
            ++other_landings;
        return;
    }
    totals[frame.pes.pid].add(frame);
    if (!frame.time || frame.codec == Codec::UNKNOWN) return;
    std::optional<int64_t> &own = f_video ? m_video : m_audio;
    const std::optional<int64_t> &other = f_video ? m_audio : m_video;
    own = std::max(own.value_or(*frame.time), *frame.time);

    TimelineBin &bin = timeline.at(*frame.time);
    (f_video ? bin.video_bytes : bin.audio_bytes) += frame.pes.payload_size;
    if (!other) return;
    int64_t &late = f_video ? bin.video_late : bin.audio_late;
    late = std::max(late, *other - *own);
}

void probe(Pump &pump, StreamFrames &frames, Plotter &plotter)
{
    plotter.f_probing = true;
    const int64_t first = std::max<int64_t>(plotter.timeline.start(), 0);
    const int64_t span = plotter.timeline.end() - first;
    for (int i = 0; i < PROBES && stop_signal() == 0; ++i) {
        const int64_t time_ms = (first + span / PROBES * i) / TICKS_PER_MS;
        if (time_ms > UINT32_MAX || !pump.seek(static_cast<uint32_t>(time_ms))) continue;
        plotter.f_landed = false;
        for (int n = 0; n < MOST_FRAMES_TO_PICTURE && !plotter.f_landed; ++n) {
            if (!pump.copy_frame()) break;
            frames.end_frames();
        }
    }
}

// In units of the picture
constexpr double WIDTH = 960, HEIGHT = 440, LEFT = 70, RIGHT = 912;
constexpr double RATE_TOP = 56, RATE_BOTTOM = 236, DISTANCE_TOP = 276, DISTANCE_BOTTOM = 356,
                 SYNC_TOP = 378, SYNC_BOTTOM = 392, AXIS = 402;

const char *const HEAD =
    R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {0} {1}" width="{0}" height="{1}" font-family="sans-serif" font-size="12">
<style>
.paper {{ fill: #ffffff }} text {{ fill: #222222 }} .title {{ font-size: 15px }} .small {{ fill: #666666 }}
.grid {{ stroke: #dddddd }} .axis {{ stroke: #888888 }} .limit {{ stroke: #bb2222; stroke-dasharray: 4 3 }}
.video {{ fill: #2b6cb0; fill-opacity: 0.3; stroke: #2b6cb0 }} .audio {{ fill: none; stroke: #c05621; stroke-width: 1.5 }}
.late {{ fill: #c05621; fill-opacity: 0.6; stroke: none }} .early {{ fill: #2b6cb0; fill-opacity: 0.6; stroke: none }}
.sync {{ stroke: #2f855a; stroke-width: 1.5 }} .video-word {{ fill: #2b6cb0 }} .audio-word {{ fill: #c05621 }} .sync-word {{ fill: #2f855a }}
@media (prefers-color-scheme: dark) {{
.paper {{ fill: #15181d }} text {{ fill: #e4e6ea }} .small {{ fill: #a0a6b0 }}
.grid {{ stroke: #333941 }} .axis {{ stroke: #7a818c }} .limit {{ stroke: #ff7b72 }}
.video {{ fill: #63a4e8; stroke: #63a4e8 }} .audio {{ stroke: #f0a35e }}
.late {{ fill: #f0a35e }} .early {{ fill: #63a4e8 }}
.sync {{ stroke: #6fcf97 }} .video-word {{ fill: #63a4e8 }} .audio-word {{ fill: #f0a35e }} .sync-word {{ fill: #6fcf97 }}
}}
</style>
<rect class="paper" width="{0}" height="{1}"/>
)";

void Drawing::draw(const std::string &title, const Plotter &plotter, bool f_probed)
{
    m_printer.print(fmt::format(fmt::runtime(HEAD), WIDTH, HEIGHT));
    draw_frame(title);
    draw_rates();
    draw_distance();
    draw_sync_points(plotter, f_probed);
    draw_time_axis();
    m_printer.print("</svg>\n");
}

void Drawing::draw_frame(const std::string &title)
{
    text("title", LEFT, 24, title);
    m_printer.print(fmt::format(
        "<text x=\"{}\" y=\"44\">bit rate in kbit/s: <tspan class=\"video-word\">video</tspan>, "
        "<tspan class=\"audio-word\">audio</tspan></text>\n",
        LEFT));
    m_printer.print(fmt::format("<text x=\"{}\" y=\"{}\">distance in the file's order, in seconds: "
                                "<tspan class=\"audio-word\">audio late</tspan>, "
                                "<tspan class=\"video-word\">video late</tspan></text>\n",
                                LEFT, DISTANCE_TOP - 12));
}

void Drawing::draw_rates()
{
    const double seconds = static_cast<double>(m_timeline.width()) / TICKS_PER_SECOND;
    const auto rate = [&](uint64_t bytes) {
        return static_cast<double>(bytes) * 8 / 1000 / seconds;
    };
    double highest = 1;
    for (size_t i = 0; i < m_timeline.used(); ++i)
        highest = std::max(
            {highest, rate(m_timeline.bin(i).video_bytes), rate(m_timeline.bin(i).audio_bytes)});
    const double step = nice_step(highest, 4);
    const int steps = static_cast<int>(std::ceil(highest / step));
    const Panel panel = {RATE_TOP, RATE_BOTTOM, 0, steps * step};
    for (int i = 0; i <= steps; ++i) {
        const double value = i * step;
        line("grid", LEFT, panel.y(value), RIGHT, panel.y(value));
        text("small\" text-anchor=\"end", LEFT - 6, panel.y(value) + 4, fmt::format("{:g}", value));
    }
    area(
        "video", panel, [&](const TimelineBin &bin) { return rate(bin.video_bytes); }, true);
    area(
        "audio", panel, [&](const TimelineBin &bin) { return rate(bin.audio_bytes); }, false);
}

void Drawing::draw_distance()
{
    const auto seconds = [](int64_t ticks) {
        return static_cast<double>(ticks) / TICKS_PER_SECOND;
    };
    double audio = 0.02, video = 0.02;
    for (size_t i = 0; i < m_timeline.used(); ++i) {
        audio = std::max(audio, seconds(m_timeline.bin(i).audio_late));
        video = std::max(video, seconds(m_timeline.bin(i).video_late));
    }
    const double step = nice_step(audio + video, 4);
    const int below = static_cast<int>(std::ceil(video / step));
    const int above = static_cast<int>(std::ceil(audio / step));
    const Panel panel = {DISTANCE_TOP, DISTANCE_BOTTOM, -below * step, above * step};
    for (int i = -below; i <= above; ++i) {
        const double value = i * step;
        line(i == 0 ? "axis" : "grid", LEFT, panel.y(value), RIGHT, panel.y(value));
        text("small\" text-anchor=\"end", LEFT - 6, panel.y(value) + 4,
             fmt::format("{:g}", std::fabs(value)));
    }
    area(
        "late", panel, [&](const TimelineBin &bin) { return seconds(bin.audio_late); }, true);
    area(
        "early", panel, [&](const TimelineBin &bin) { return -seconds(bin.video_late); }, true);
    for (const double limit : {1.0, -1.0}) {
        if (limit < panel.highest && limit > panel.lowest)
            line("limit", LEFT, panel.y(limit), RIGHT, panel.y(limit));
    }
}

void Drawing::draw_sync_points(const Plotter &plotter, bool f_probed)
{
    const size_t count = plotter.sync_points.size();
    for (const int64_t time : plotter.sync_points) {
        const double at = x(static_cast<double>(time - m_timeline.start()) / TICKS_PER_SECOND);
        line("sync", at, SYNC_TOP, at, SYNC_BOTTOM);
    }
    if (!f_probed) return;
    std::string words = fmt::format("{} found by {} seeks", counted(count, "sync point"), PROBES);
    if (plotter.other_landings > 0)
        words += fmt::format("; {} came to other pictures",
                             counted(static_cast<uint64_t>(plotter.other_landings), "seek"));
    text("sync-word\" text-anchor=\"end", RIGHT, HEIGHT - 6, words);
}

void Drawing::draw_time_axis()
{
    const double span =
        static_cast<double>(m_timeline.end() - m_timeline.start()) / TICKS_PER_SECOND;
    const double step = nice_time_step(span, 10);
    line("axis", LEFT, AXIS, RIGHT, AXIS);
    const int steps = static_cast<int>(span / step);
    for (int i = 0; i <= steps; ++i) {
        const double at = i * step;
        line("axis", x(at), AXIS, x(at), AXIS + 4);
        // A hair more: 0.3 s comes out as a little less than 27,000 ticks.
        const auto ticks = static_cast<int64_t>(at * static_cast<double>(TICKS_PER_SECOND) + 0.01);
        // Without the milliseconds where steps are whole seconds.
        const std::string label = time_text((m_timeline.start() + ticks) / TICKS_PER_MS);
        text("small\" text-anchor=\"middle", x(at), AXIS + 17,
             step >= 1 ? label.substr(0, label.find('.')) : label);
    }
}

/// A value for each bin, as steps; f_filled: down to 0.
template <typename Value>
void Drawing::area(const char *style, const Panel &panel, Value value, bool f_filled)
{
    const double bin_seconds = static_cast<double>(m_timeline.width()) / TICKS_PER_SECOND;
    std::string path;
    for (size_t i = 0; i < m_timeline.used(); ++i) {
        const double y = panel.y(value(m_timeline.bin(i)));
        path += fmt::format("{}{:.1f},{:.1f}H{:.1f}", i == 0 ? "M" : "L",
                            x(static_cast<double>(i) * bin_seconds), y,
                            x(static_cast<double>(i + 1) * bin_seconds));
    }
    if (f_filled) path += fmt::format("V{0:.1f}H{1:.1f}Z", panel.y(0), LEFT);
    m_printer.print(fmt::format("<path class=\"{}\" d=\"{}\"/>\n", style, path));
}

void Drawing::line(const char *style, double x1, double y1, double x2, double y2)
{
    m_printer.print(fmt::format("<path class=\"{}\" d=\"M{:.1f},{:.1f}L{:.1f},{:.1f}\"/>\n", style,
                                x1, y1, x2, y2));
}

void Drawing::text(const char *style, double x, double y, const std::string &words)
{
    m_printer.print(fmt::format("<text class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n", style,
                                x, y, xml_text(words)));
}

double Drawing::x(double seconds) const
{
    const double span =
        static_cast<double>(m_timeline.end() - m_timeline.start()) / TICKS_PER_SECOND;
    return LEFT + (RIGHT - LEFT) * seconds / span;
}

// 1, 2 or 5 times a power of ten, so that about as many steps make up the range.
double nice_step(double range, int steps)
{
    // By multiplication: the mathematical library would take 300 KB of memory.
    const double least = range / steps;
    double power = 1;
    while (power * 10 <= least)
        power *= 10;
    while (power > least && power > 1e-9)
        power /= 10;
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (range / (power * factor) <= steps) return power * factor;
    }
    return power * 10;
}

double nice_time_step(double seconds, int steps)
{
    for (const double step : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0,
                              1800.0, 3600.0, 7200.0}) {
        if (seconds < steps) break;
        if (seconds / step <= steps) return step;
    }
    return nice_step(seconds, steps);
}

}  // namespace
