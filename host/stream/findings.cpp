#include "findings.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/text.h"
#include "stream_frames.h"
#include "time_text.h"

namespace {

constexpr size_t MOST_FINDINGS = 64;

}  // namespace

std::string Finding::text() const
{
    std::string line = fmt::format("{}: ", subject);
    if (!detail.empty()) line += detail + ", ";
    line += count == 1 ? "once" : fmt::format("{} times", count);
    line += fmt::format(" {}", kind->text);
    if (kind->amount == Amount::TICKS)
        line += fmt::format(", {} {:.3f} s", kind->worst_text,
                            static_cast<double>(worst) / TICKS_PER_SECOND);
    if (kind->amount == Amount::BYTES)
        line +=
            fmt::format(", {} {}", kind->worst_text, counted(static_cast<uint64_t>(worst), "byte"));
    line += "; first ";
    if (first_time) line += fmt::format("at {}, ", time_text(*first_time / TICKS_PER_MS));
    return line + fmt::format("in packet {}", first_packet);
}

void Findings::add(const FindingKind &kind, const std::string &subject, uint64_t packet,
                   std::optional<int64_t> time, int64_t amount, const std::string &detail)
{
    const auto same = std::find_if(m_all.begin(), m_all.end(), [&](const Finding &finding) {
        return finding.kind == &kind && finding.subject == subject && finding.detail == detail;
    });
    if (same != m_all.end()) {
        ++same->count;
        same->worst = std::max(same->worst, amount);
        return;
    }
    if (m_all.size() < MOST_FINDINGS)
        m_all.push_back({&kind, subject, detail, 1, packet, time, amount});
    else
        ++m_left_out;
}
