#include "ts_collector.h"

#include <cstdio>
#include <map>
#include <utility>

namespace {

/// Keeps everything.
class Reporter : public TsEvents {
public:
    TsReport report;

    void on_problem(const TsProblem &problem) override
    {
        char line[120];
        snprintf(line, sizeof line, "packet %zu, PID 0x%X: %s", static_cast<size_t>(problem.packet),
                 unsigned{problem.pid}, problem.what());
        report.problems.push_back(line);
    }
    void on_pat(uint64_t packet) override
    {
        report.pat_packets.push_back(static_cast<size_t>(packet));
    }
    void on_pes_start(uint16_t pid) override
    {
        m_open[pid] = report.pes.size();
        report.pes.emplace_back();
    }
    void on_payload(uint16_t pid, const uint8_t *bytes, size_t size) override
    {
        Bytes &payload = report.pes[m_open[pid]].payload;
        payload.insert(payload.end(), bytes, bytes + size);
    }
    void on_pes_end(const TsPes &pes) override
    {
        TsPes &kept = report.pes[m_open[pes.pid]];
        Bytes payload = std::move(kept.payload);
        kept = pes;
        kept.payload = std::move(payload);
    }

private:
    std::map<uint16_t, size_t> m_open;  // PID of a stream, and the index of its last in report.pes
};

}  // namespace

TsReport check_ts(const Bytes &stream)
{
    Reporter reporter;
    TsChecker checker(reporter);
    checker.feed(stream.data(), stream.size());
    checker.finish();
    return std::move(reporter.report);
}
