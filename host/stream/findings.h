// What is found in a stream, gathered by kind: how often, where first, and how bad at worst.

#ifndef HOST_STREAM_FINDINGS_H
#define HOST_STREAM_FINDINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class Amount { NONE, TICKS, BYTES };  ///< what the size of a finding is measured in

/// A kind of finding. Records of it are compared by their address.
struct FindingKind {
    const char *code;  ///< for programs
    const char *text;  ///< for people; what is counted comes before
    Amount amount;
    const char *worst_text;  ///< before the worst amount
};

struct Finding {
    const FindingKind *kind;
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
    /// amount: how bad it is, in the unit of the kind.
    void add(const FindingKind &kind, const std::string &subject, uint64_t packet,
             std::optional<int64_t> time, int64_t amount = 0, const std::string &detail = "");

    const std::vector<Finding> &all() const { return m_all; }
    /// Findings of kinds for which there was no more room.
    uint64_t left_out() const { return m_left_out; }

private:
    std::vector<Finding> m_all;
    uint64_t m_left_out = 0;
};

#endif
