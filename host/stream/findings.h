// What is found in a stream, gathered by rule: how often, where first, and how bad at worst.

#ifndef HOST_STREAM_FINDINGS_H
#define HOST_STREAM_FINDINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ts_rule.h"

struct Finding {
    const TsRule *rule;
    std::string subject;  ///< the stream
    std::string detail;   ///< more of what was found; empty mostly
    uint64_t count = 0;
    uint64_t first_packet = 0;
    std::optional<int64_t> first_time;  ///< 90 kHz
    int64_t worst = 0;

    std::string text() const;
};

class Findings {
public:
    /// subject: the stream.
    void add(const TsProblem &problem, const std::string &subject);

    const std::vector<Finding> &all() const { return m_all; }
    /// Findings of rules for which there was no more room.
    uint64_t left_out() const { return m_left_out; }

private:
    std::vector<Finding> m_all;
    uint64_t m_left_out = 0;
};

#endif
