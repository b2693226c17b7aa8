#include "progress.h"

#include <cstdio>

#include <fmt/format.h>

namespace {

constexpr uint64_t LOOK_INTERVAL = 1024 * 1024;  // bytes
constexpr double SHORTEST_MEASURED = 0.001;      // seconds
constexpr std::chrono::milliseconds SHOW_INTERVAL{300};
const char *const ERASE_LINE = "\r\x1b[K";

}  // namespace

Progress::Progress(bool f_shown)
    : m_f_shown(f_shown)
    , m_start(Clock::now())
    , m_next_show(m_start + SHOW_INTERVAL)
{
}

bool Progress::is_due(uint64_t bytes)
{
    if (!m_f_shown || bytes < m_next_look) return false;
    m_next_look = bytes + LOOK_INTERVAL;
    return Clock::now() >= m_next_show;
}

void Progress::show(uint64_t bytes, double part, const std::string &place)
{
    m_next_show = Clock::now() + SHOW_INTERVAL;
    // The library's diagnostics go above the line.
    clear();
    std::fflush(stdout);

    const double passed = seconds();
    std::string line =
        fmt::format("{:3.0f} %  {}{}", part * 100, place, rate_text(bytes, passed, "  "));
    // Before that the rest is a guess.
    if (part > 0.005) {
        const auto left = static_cast<int64_t>(passed / part * (1 - part));
        line += fmt::format("  {:02}:{:02}:{:02} left", left / 3600, left / 60 % 60, left % 60);
    }
    std::fputs(line.c_str(), stderr);
    m_f_line = true;
}

void Progress::clear()
{
    if (m_f_line) std::fputs(ERASE_LINE, stderr);
    m_f_line = false;
}

double Progress::seconds() const
{
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}

std::string rate_text(uint64_t bytes, double seconds, const char *before)
{
    if (seconds < SHORTEST_MEASURED || bytes == 0) return "";
    const double rate = static_cast<double>(bytes) / seconds;
    return rate < 1e5 ? fmt::format("{}{:.2g} kB/s", before, rate / 1e3)
                      : fmt::format("{}{:.1f} MB/s", before, rate / 1e6);
}

std::string speed_text(int64_t span_ms, double seconds, const char *before)
{
    if (seconds < SHORTEST_MEASURED || span_ms <= 0) return "";
    const double speed = static_cast<double>(span_ms) / 1000 / seconds;
    return speed < 1 ? fmt::format("{}{:.2g}x real time", before, speed)
                     : fmt::format("{}{:.1f}x real time", before, speed);
}
