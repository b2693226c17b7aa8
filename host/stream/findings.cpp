#include "findings.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/text.h"
#include "time_text.h"
#include "ts_time.h"

namespace {

constexpr size_t MOST_FINDINGS = 64;

}  // namespace

std::string Finding::text() const
{
    std::string line = fmt::format("{}: ", subject);
    if (!detail.empty()) line += detail + ", ";
    line += count == 1 ? "once" : fmt::format("{} times", count);
    if (detail.empty() || rule == &rules::STRUCTURE) line += fmt::format(" {}", rule->text);
    switch (rule->amount) {
    case TsAmount::NONE: break;
    case TsAmount::TICKS:
        line += fmt::format(", {} {:.3f} s", rule->worst_text,
                            static_cast<double>(worst) / TICKS_PER_SECOND);
        break;
    case TsAmount::BYTES:
        line +=
            fmt::format(", {} {}", rule->worst_text, counted(static_cast<uint64_t>(worst), "byte"));
        break;
    case TsAmount::NANOSECONDS: line += fmt::format(", {} {} ns", rule->worst_text, worst); break;
    }
    line += "; first ";
    if (first_time) line += fmt::format("at {}, ", time_text(*first_time / TICKS_PER_MS));
    return line + fmt::format("in packet {}", first_packet);
}

void Findings::add(const TsProblem &problem, const std::string &subject)
{
    const std::string detail = problem.detail == nullptr ? "" : problem.detail;
    const auto same = std::find_if(m_all.begin(), m_all.end(), [&](const Finding &finding) {
        return finding.rule == problem.rule && finding.subject == subject &&
               finding.detail == detail;
    });
    if (same != m_all.end()) {
        same->count += problem.count;
        same->worst = std::max(same->worst, problem.amount);
    } else if (m_all.size() < MOST_FINDINGS) {
        m_all.push_back({problem.rule, subject, detail, problem.count, problem.packet, problem.time,
                         problem.amount});
    } else {
        ++m_left_out;
    }
}
