#include "plot_drawing.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/text.h"
#include "ts_time.h"

namespace {

// In units of the picture
constexpr double WIDTH = 960, LEFT = 70, RIGHT = 912;
constexpr double TOP = 56, RATE_HEIGHT = 180, DISTANCE_HEIGHT = 80, SYNC_HEIGHT = 14;
constexpr double LEGEND = 12;  // a panel's words are so much above it
constexpr double GAP = 40;     // between panels
constexpr double AXIS_HEIGHT = 38;

constexpr double MOST_BARS = 240;
constexpr double SHORTEST_BAR = 0.2;  // seconds
constexpr int MOST_TICKS = 12;

/// A panel of the picture: a place for values, and its scale.
struct Panel {
    double top, bottom;  // places of highest and lowest value
    double lowest, highest;

    double y(double value) const
    {
        return bottom - (bottom - top) * (value - lowest) / (highest - lowest);
    }
};

struct Bar {
    int64_t begin, end;  // 90 kHz
};

class Drawing {
public:
    Drawing(const Timeline &timeline, Printer &printer);

    void draw(const std::string &title);

private:
    void draw_rates(double top);
    void draw_distance(double top);
    void draw_keys(double top, double words_at);
    void draw_time_axis(double at);
    void draw_grid(const Panel &panel, double step);
    double rate(Timeline::Stream stream, const Bar &bar) const;
    template <typename Value>
    void area(const char *style, const Panel &panel, Timeline::Stream stream, Value value,
              bool f_filled);
    void line(const char *style, double x1, double y1, double x2, double y2);
    void text(const char *style, double x, double y, const std::string &words);
    double x(int64_t time) const;

    const Timeline &m_timeline;
    Printer &m_printer;
    const bool m_f_video, m_f_audio;
    std::vector<Bar> m_bars;
};

std::vector<Bar> choose_bars(const Timeline &timeline);
double whole_steps(double range, double step);
double nice_step(double range, double steps);
double nice_time_step(double seconds, double steps);
std::string axis_time(int64_t time, double step, bool f_hours);
std::string shortened(const std::string &title);

double seconds(int64_t ticks)
{
    return static_cast<double>(ticks) / TICKS_PER_SECOND;
}

int64_t ticks(double seconds)
{
    // A hair more: 0.3 s comes out as a little less than 27,000 ticks.
    return static_cast<int64_t>(seconds * static_cast<double>(TICKS_PER_SECOND) + 0.01);
}

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

}  // namespace

void draw_timeline(const Timeline &timeline, const std::string &title, Printer &printer)
{
    Drawing(timeline, printer).draw(title);
}

namespace {

Drawing::Drawing(const Timeline &timeline, Printer &printer)
    : m_timeline(timeline)
    , m_printer(printer)
    , m_f_video(timeline.has(Timeline::VIDEO))
    , m_f_audio(timeline.has(Timeline::AUDIO))
    , m_bars(choose_bars(timeline))
{
}

void Drawing::draw(const std::string &title)
{
    const bool f_distance = m_f_video && m_f_audio;
    const double distance_top = TOP + RATE_HEIGHT + GAP;
    const double sync_top =
        f_distance ? distance_top + DISTANCE_HEIGHT + GAP / 2 : distance_top - GAP / 2;
    const double axis = sync_top + (m_f_video ? SYNC_HEIGHT + LEGEND : 0);
    const double height = axis + AXIS_HEIGHT;
    m_printer.print(fmt::format(fmt::runtime(HEAD), WIDTH, height));
    text("title", LEFT, 24, shortened(title));
    draw_rates(TOP);
    if (f_distance) draw_distance(distance_top);
    if (m_f_video) draw_keys(sync_top, height - 6);
    draw_time_axis(axis);
    m_printer.print("</svg>\n");
}

void Drawing::draw_rates(double top)
{
    constexpr double MOST_IN_KILOBITS = 10000;
    double highest = 1;
    for (const Bar &bar : m_bars)
        highest = std::max({highest, rate(Timeline::VIDEO, bar), rate(Timeline::AUDIO, bar)});
    const double unit = highest > MOST_IN_KILOBITS ? 1000 : 1;
    m_printer.print(fmt::format("<text x=\"{}\" y=\"{}\">bit rate in {}: {}{}{}</text>\n", LEFT,
                                top - LEGEND, unit > 1 ? "Mbit/s" : "kbit/s",
                                m_f_video ? "<tspan class=\"video-word\">video</tspan>" : "",
                                m_f_video && m_f_audio ? ", " : "",
                                m_f_audio ? "<tspan class=\"audio-word\">audio</tspan>" : ""));

    const double step = nice_step(highest / unit, 4);
    const Panel panel = {top, top + RATE_HEIGHT, 0, whole_steps(highest / unit, step) * step};
    draw_grid(panel, step);
    for (const Timeline::Stream stream : {Timeline::VIDEO, Timeline::AUDIO}) {
        const bool f_video = stream == Timeline::VIDEO;
        area(
            f_video ? "video" : "audio", panel, stream,
            [&](const Bar &bar) { return rate(stream, bar) / unit; }, f_video);
    }
}

void Drawing::draw_distance(double top)
{
    m_printer.print(fmt::format("<text x=\"{}\" y=\"{}\">distance in the file's order, in seconds: "
                                "<tspan class=\"audio-word\">audio late</tspan>, "
                                "<tspan class=\"video-word\">video late</tspan></text>\n",
                                LEFT, top - LEGEND));
    const auto late = [&](Timeline::Stream stream, const Bar &bar) {
        return seconds(m_timeline.most_late(stream, bar.begin, bar.end));
    };
    double audio = 0.02, video = 0.02;
    for (const Bar &bar : m_bars) {
        audio = std::max(audio, late(Timeline::AUDIO, bar));
        video = std::max(video, late(Timeline::VIDEO, bar));
    }
    const double step = nice_step(audio + video, 4);
    const Panel panel = {top, top + DISTANCE_HEIGHT, -whole_steps(video, step) * step,
                         whole_steps(audio, step) * step};
    draw_grid(panel, step);
    area(
        "late", panel, Timeline::AUDIO, [&](const Bar &bar) { return late(Timeline::AUDIO, bar); },
        true);
    area(
        "early", panel, Timeline::VIDEO,
        [&](const Bar &bar) { return -late(Timeline::VIDEO, bar); }, true);
    for (const double limit : {1.0, -1.0}) {
        if (limit < panel.highest && limit > panel.lowest)
            line("limit", LEFT, panel.y(limit), RIGHT, panel.y(limit));
    }
}

void Drawing::draw_keys(double top, double words_at)
{
    constexpr double LEAST_APART = 1;
    double last = 0;
    for (const int64_t time : m_timeline.keys()) {
        const double at = x(time);
        if (at < last + LEAST_APART) continue;
        line("sync", at, top, at, top + SYNC_HEIGHT);
        last = at;
    }
    std::string words = counted(m_timeline.key_count(), "sync point");
    if (m_timeline.key_count() > 1)
        words += fmt::format(", at most {:.1f} s apart", seconds(m_timeline.longest_key_step()));
    text("sync-word\" text-anchor=\"end", RIGHT, words_at, words);
}

void Drawing::draw_time_axis(double at)
{
    constexpr double HOUR = 3600;
    const double step = nice_time_step(seconds(m_timeline.end() - m_timeline.begin()), MOST_TICKS);
    const bool f_hours = seconds(m_timeline.end()) >= HOUR;
    line("axis", LEFT, at, RIGHT, at);
    // By number, so that no rounding adds up.
    const double first = whole_steps(seconds(m_timeline.begin()), step);
    for (int i = 0; i <= MOST_TICKS; ++i) {
        const int64_t time = ticks((first + i) * step);
        if (time > m_timeline.end()) break;
        line("axis", x(time), at, x(time), at + 4);
        text("small\" text-anchor=\"middle", x(time), at + 17, axis_time(time, step, f_hours));
    }
}

void Drawing::draw_grid(const Panel &panel, double step)
{
    // The ends are whole steps, but for rounding.
    const auto below = static_cast<int>(whole_steps(-panel.lowest - step / 2, step));
    const auto above = static_cast<int>(whole_steps(panel.highest - step / 2, step));
    for (int i = -below; i <= above; ++i) {
        const double value = i * step;
        line(i == 0 ? "axis" : "grid", LEFT, panel.y(value), RIGHT, panel.y(value));
        text("small\" text-anchor=\"end", LEFT - 6, panel.y(value) + 4,
             fmt::format("{:g}", std::fabs(value)));
    }
}

// In kbit/s, over that part of the bar in which there is a stream.
double Drawing::rate(Timeline::Stream stream, const Bar &bar) const
{
    const int64_t begin = std::max(bar.begin, m_timeline.span(stream).begin);
    const int64_t end = std::min(bar.end, m_timeline.span(stream).end);
    if (begin >= end) return 0;
    return m_timeline.bytes(stream, begin, end) * 8 / 1000 / seconds(end - begin);
}

/// A value for each bar, as steps; f_filled: down to 0. Nothing where the stream isn't there.
template <typename Value>
void Drawing::area(const char *style, const Panel &panel, Timeline::Stream stream, Value value,
                   bool f_filled)
{
    const Timeline::Span span = m_timeline.span(stream);
    std::string path;
    for (const Bar &bar : m_bars) {
        const int64_t begin = std::max(bar.begin, span.begin), end = std::min(bar.end, span.end);
        if (begin >= end) continue;
        if (path.empty())
            path = fmt::format("M{:.1f},{:.1f}", x(begin), panel.y(f_filled ? 0 : value(bar)));
        path += fmt::format("V{:.1f}H{:.1f}", panel.y(value(bar)), x(end));
    }
    if (path.empty()) return;
    if (f_filled) path += fmt::format("V{:.1f}Z", panel.y(0));
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

double Drawing::x(int64_t time) const
{
    const auto span = static_cast<double>(m_timeline.end() - m_timeline.begin());
    return LEFT + (RIGHT - LEFT) * static_cast<double>(time - m_timeline.begin()) / span;
}

// As long as a group of pictures, or several: a key picture is larger than others, and a bar with one more of
// them than its neighbours would stand out. Where a group takes a good part of the picture, bars show what is
// in it.
std::vector<Bar> choose_bars(const Timeline &timeline)
{
    constexpr int64_t LEAST_GROUPS = 8;
    const int64_t begin = timeline.begin(), end = timeline.end();
    const double least = std::max(seconds(end - begin) / MOST_BARS, SHORTEST_BAR);
    const int64_t group = timeline.mean_key_step();
    const bool f_groups = group > 0 && (end - begin) / group >= LEAST_GROUPS;
    const int64_t step = f_groups ? group * static_cast<int64_t>(whole_steps(least, seconds(group)))
                                  : ticks(nice_time_step(least, 1));
    std::vector<Bar> bars;
    // A rest of less than half a bar would show but a frame or two.
    for (int64_t at = begin; at < end;) {
        const int64_t to = end - at < step * 3 / 2 ? end : at + step;
        bars.push_back({at, to});
        at = to;
    }
    return bars;
}

// How many steps reach at least as far as the range. The library's function would have another file loaded.
double whole_steps(double range, double step)
{
    const auto whole = static_cast<double>(static_cast<int64_t>(range / step));
    return whole * step < range ? whole + 1 : whole;
}

// 1, 2 or 5 times a power of ten, so that about as many steps make up the range.
double nice_step(double range, double steps)
{
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

double nice_time_step(double seconds, double steps)
{
    constexpr double MINUTE = 60, HOUR = 3600;
    for (const double step :
         {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, MINUTE, 2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE,
          30 * MINUTE, HOUR, 2 * HOUR, 4 * HOUR, 6 * HOUR, 12 * HOUR, 24 * HOUR}) {
        if (seconds < steps) break;
        if (seconds / step <= steps) return step;
    }
    return nice_step(seconds, steps);
}

// "1:05", "1:00:05", and with decimals where steps are below a second
std::string axis_time(int64_t time, double step, bool f_hours)
{
    const int64_t ms = (time < 0 ? -time : time) / TICKS_PER_MS;
    std::string text = time < 0 ? "-" : "";
    if (f_hours)
        text += fmt::format("{}:{:02}:{:02}", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60);
    else
        text += fmt::format("{}:{:02}", ms / 60000, ms / 1000 % 60);
    if (step >= 1) return text;
    const std::string fraction = fmt::format(".{:03}", ms % 1000);
    return text + fraction.substr(0, step >= 0.1 ? 2 : step >= 0.01 ? 3 : 4);
}

// As much as there is room for, at least where letters are of usual width.
std::string shortened(const std::string &title)
{
    constexpr size_t MOST_LETTERS = 100;
    std::string shown = printable(title);
    size_t letters = 0;
    for (size_t at = 0; at < shown.size(); ++at) {
        const bool f_begins = (static_cast<uint8_t>(shown[at]) & 0xC0) != 0x80;
        if (f_begins && ++letters > MOST_LETTERS) return shown.substr(0, at) + "...";
    }
    return shown;
}

}  // namespace
