// What golt check reports of a stream, for people and for programs.

#ifndef HOST_CHECK_REPORT_H
#define HOST_CHECK_REPORT_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "stream/findings.h"
#include "stream/scan.h"
#include "ts_judge.h"

/// Takes a stream, and gathers what is found in it.
class CheckReport final : public TsJudge {
public:
    /// f_file: the stream is the file itself, not what golt makes of it.
    explicit CheckReport(bool f_file)
        : m_f_file(f_file)
    {
    }

    // To be filled in
    std::string input, format;
    std::string fault;                 ///< of the input; empty when there was none
    std::vector<std::string> by_golt;  ///< what golt does with every file, a line each
    bool f_own_order =
        false;               ///< audio and video are interleaved by the library, not as in the file
    size_t packet_size = 0;  ///< of a file of packets
    uint64_t packets = 0;

    bool is_clean() const { return m_findings.all().empty() && fault.empty(); }
    uint64_t open_lengths() const { return m_open_lengths; }
    std::string text() const;
    Json json() const;

    void on_frame(const StreamFrame &frame) override;
    void on_program(const TsProgram &program) override { m_program = program; }

private:
    void found(const TsProblem &problem) override;
    std::string subject_of(const TsProblem &problem) const;
    std::vector<std::string> lines_by_golt() const;
    std::string facts_text() const;
    Json clock_json() const;

    const bool m_f_file;
    Findings m_findings;
    Findings m_by_golt;  // what the file has no part in
    Totals m_totals;
    std::optional<TsProgram> m_program;
    uint64_t m_open_lengths = 0;  // PES packets of video that state no length
};

#endif
