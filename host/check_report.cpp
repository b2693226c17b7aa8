#include "check_report.h"

#include <fmt/format.h>

#include "io/text.h"

namespace {

constexpr uint16_t NO_PID = 0x1FFF;
constexpr double PCR_PER_MS = static_cast<double>(TICKS_PER_MS * PCR_PER_TICK);

Json most_json(const Distances &distances);
std::string most_text(const Distances &distances);

int64_t nanoseconds(int64_t pcr)
{
    return pcr * 1000 / 27;
}

}  // namespace

void CheckReport::on_frame(const StreamFrame &frame)
{
    m_totals[frame.pes.pid].add(frame);
    if (is_video(frame.codec) && frame.pes.length == 0) ++m_open_lengths;
    TsJudge::on_frame(frame);
}

void CheckReport::found(const TsProblem &problem)
{
    if (problem.f_unusual) return;
    const bool f_order = problem.rule == &rules::APART && f_own_order;
    (f_order ? m_by_golt : m_findings).add(problem, subject_of(problem));
}

std::vector<std::string> CheckReport::lines_by_golt() const
{
    std::vector<std::string> lines = by_golt;
    for (const Finding &finding : m_by_golt.all())
        lines.push_back(finding.text());
    return lines;
}

std::string CheckReport::subject_of(const TsProblem &problem) const
{
    if (problem.rule->f_clock) return "clock";
    if (problem.pid == NO_PID) return "file";
    const auto totals = m_totals.find(problem.pid);
    if (m_f_file || totals == m_totals.end()) return fmt::format("PID {:#x}", problem.pid);
    return is_video(totals->second.codec) ? "video" : "sound";
}

// The verdict, and below it what it rests on.
std::string CheckReport::text() const
{
    const uint64_t count =
        m_findings.all().size() + m_findings.left_out() + static_cast<uint64_t>(!fault.empty());
    std::string text = fmt::format("{}: {}\n", printable(input),
                                   count == 0 ? "nothing found" : counted(count, "finding"));
    text += facts_text();
    for (const Finding &finding : m_findings.all())
        text += fmt::format("  {}\n", finding.text());
    if (m_findings.left_out() > 0)
        text += fmt::format("  {} more of other kinds\n", m_findings.left_out());
    if (!fault.empty()) text += fmt::format("  {}\n", printable(fault));
    for (const std::string &line : lines_by_golt())
        text += fmt::format("  by golt: {}\n", printable(line));
    return text;
}

std::string CheckReport::facts_text() const
{
    std::string text;
    if (m_f_file) {
        text += fmt::format("  {} of {} bytes", counted(packets, "packet"), packet_size);
        if (m_program) text += fmt::format(", program {}", m_program->number);
        if (m_program && m_program->others > 0)
            text += fmt::format("; {} left out", counted(m_program->others, "other program"));
        text += "\n";
    }
    for (const auto &[pid, totals] : m_totals)
        text += fmt::format("  PID {:#x}, {}: {}\n", pid, codec_name(totals.codec),
                            totals_text(totals));
    const Distances &pcrs = clock().pcrs();
    if (pcrs.count == 0) return text;
    text += fmt::format("  clock: PCR every {:.1f} to {:.1f} ms, {:.1f} ms on average",
                        static_cast<double>(pcrs.least) / PCR_PER_MS,
                        static_cast<double>(pcrs.most) / PCR_PER_MS,
                        static_cast<double>(pcrs.mean()) / PCR_PER_MS);
    if (least_lead()) {
        const double lead = static_cast<double>(*least_lead()) / TICKS_PER_MS;
        text += lead < 0 ? fmt::format("; frames arrive up to {:.1f} ms after decoding", -lead)
                         : fmt::format("; frames arrive {:.1f} ms or more before decoding", lead);
    }
    text +=
        fmt::format("\n  rate: {:.1f} kbit/s, ", static_cast<double>(clock().bit_rate()) / 1000);
    const std::optional<int64_t> jitter = clock().jitter();
    text +=
        jitter ? fmt::format("constant, PCR jitter {} ns\n", nanoseconds(*jitter)) : "variable\n";
    return text + fmt::format("  tables: PAT {}, PMT {}\n", most_text(clock().tables(TsClock::PAT)),
                              most_text(clock().tables(TsClock::PMT)));
}

Json CheckReport::json() const
{
    Json json = json_document("golt.check/1");
    json["input"] = input;
    json["format"] = format;
    json["clean"] = is_clean();
    json["fault"] = fault.empty() ? Json() : Json(fault);
    json["streams"] = Json::array();
    for (const auto &[pid, totals] : m_totals)
        json["streams"].push_back(totals_json(totals));
    json["findings"] = Json::array();
    for (const Finding &finding : m_findings.all()) {
        const TsRule &rule = *finding.rule;
        Json one = {{"code", rule.code},
                    {"stream", finding.subject},
                    {"count", finding.count},
                    {"first_packet", finding.first_packet},
                    {"first_ms", finding.first_time ? json_ms(*finding.first_time) : Json()}};
        if (rule.amount == TsAmount::TICKS) one["worst_ms"] = json_ms(finding.worst);
        if (rule.amount == TsAmount::BYTES) one["worst_bytes"] = finding.worst;
        if (rule.amount == TsAmount::NANOSECONDS) one["worst_ns"] = finding.worst;
        one["text"] = finding.text();
        json["findings"].push_back(std::move(one));
    }
    json["left_out"] = m_findings.left_out();
    json["by_golt"] = lines_by_golt();
    json["packet_size"] = m_f_file ? Json(packet_size) : Json();
    json["program"] = m_program ? Json(m_program->number) : Json();
    json["other_programs"] = m_program ? Json(m_program->others) : Json();
    json["clock"] = clock_json();
    json["tables"] = {{"pat_ms_max", most_json(clock().tables(TsClock::PAT))},
                      {"pmt_ms_max", most_json(clock().tables(TsClock::PMT))}};
    return json;
}

Json CheckReport::clock_json() const
{
    if (clock().pcrs().count == 0) return {};
    const std::optional<int64_t> jitter = clock().jitter();
    return {{"pid", clock().pid()},
            {"interval_ms", distances_json(clock().pcrs())},
            {"lead_ms_min", least_lead() ? json_ms(*least_lead()) : Json()},
            {"bits_per_second", clock().bit_rate()},
            {"constant_rate", jitter.has_value()},
            {"jitter_ns", jitter ? Json(nanoseconds(*jitter)) : Json()}};
}

namespace {

Json most_json(const Distances &distances)
{
    return distances.count == 0 ? Json() : json_ms(distances.most / PCR_PER_TICK);
}

std::string most_text(const Distances &distances)
{
    if (distances.count == 0) return "once";
    return fmt::format("every {:.1f} ms or sooner",
                       static_cast<double>(distances.most) / PCR_PER_MS);
}

}  // namespace
