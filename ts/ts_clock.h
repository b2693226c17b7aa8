// The clock of a program: how far apart its PCRs and its tables are, and whether the PCRs fit a constant rate.

#ifndef TS_TS_CLOCK_H
#define TS_TS_CLOCK_H

#include <array>
#include <cstdint>
#include <optional>

#include "ts_rule.h"
#include "ts_time.h"

/// Distances, of 27 MHz.
struct Distances {
    int64_t least = INT64_MAX, most = 0, sum = 0;
    uint64_t count = 0;

    void add(int64_t distance);
    int64_t mean() const { return count == 0 ? 0 : sum / static_cast<int64_t>(count); }
};

/// Takes what is found.
class TsProblems {
public:
    virtual void found(const TsProblem &problem) = 0;

protected:
    ~TsProblems() = default;
};

class TsClock {
public:
    /// problems: has to outlive the object.
    explicit TsClock(TsProblems &problems)
        : m_problems(problems)
    {
    }

    enum Table { PAT, PMT, TABLES };

    void on_pid(uint16_t pcr_pid) { m_pid = pcr_pid; }
    void on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps);
    void on_table(Table table, uint64_t packet, uint16_t pid);
    /// To be called when the stream ends.
    void finish();

    uint16_t pid() const { return m_pid; }
    /// The last PCR, 90 kHz.
    std::optional<int64_t> now() const;
    const Distances &pcrs() const { return m_pcrs; }
    const Distances &tables(Table table) const { return m_tables[table].distances; }
    /// Bits in a second, by the packets between the PCRs; 0: not known.
    uint64_t bit_rate() const;
    /// How far PCRs are from where they belong at the constant rate, 27 MHz. None where the rate varies.
    std::optional<int64_t> jitter() const;

private:
    struct Point {
        uint64_t packet;
        int64_t pcr;
    };
    struct TableTimes {
        Distances distances;
        uint16_t pid = 0;
        std::optional<int64_t> last;  // time of the last one, 27 MHz since the first PCR
        // Those after the last PCR
        bool f_pending = false;
        uint64_t first = 0, newest = 0, widest = 0;
    };

    void add_jitter(const Point &now);
    void add_tables(const Point &from, const Point &to);
    void add_table(TableTimes &table, uint64_t packet, int64_t time);
    void report(const TsRule &rule, uint64_t packet, uint16_t pid, int64_t amount);

    TsProblems &m_problems;
    uint16_t m_pid = 0;
    uint64_t m_pcr = 0;             // the last one, as it is in the stream
    std::optional<Point> m_last;    // the last one; times since the first
    std::optional<Point> m_before;  // the one before
    Distances m_pcrs;
    uint64_t m_packets = 0;  // between PCRs
    std::array<TableTimes, TABLES> m_tables;

    // PCRs that are where the one before and the one after say, or not
    uint64_t m_fitting = 0, m_unfitting = 0;
    int64_t m_worst = 0;
    uint64_t m_first_unfitting = 0;  // its packet
    int64_t m_first_unfitting_time = 0;
};

#endif
