// Statistics of how long an operation takes, for measuring the library's speed.

#ifndef GOLT_TCOUNTER_H
#define GOLT_TCOUNTER_H

#include <cstdint>
#include <ctime>

/// Durations are microseconds of a clock that never goes back. Without memory for its histogram a
/// counter works without one.
class timecounter {
public:
    /// name: cut to 64 characters. maxcount: durations after which the counter starts afresh by
    /// itself, so that it shows the recent ones; 0: never. It is stored without its sign.
    timecounter(const char *name, int maxcount);
    ~timecounter();
    timecounter(const timecounter &) = delete;
    timecounter &operator=(const timecounter &) = delete;

    /// Forgets all durations, and a measurement that is running.
    void reset();
    /// Begins a measurement; one that is running is forgotten.
    void start();
    /// Ends the measurement and counts its duration. Does nothing when none is running.
    void stop();
    /// Prints the counter in one line on the standard output: count, mean, standard deviation and
    /// maximum, then how many durations lie below each level and above the last.
    void print();

protected:
    char m_szName[64];    // without a NUL where the name fills it
    clock_t m_startTime;  // microseconds; negative: no measurement is running
    uint64_t m_sumDur;
    uint64_t m_sumDurSq;
    uint32_t m_maxDur;
    uint32_t m_count;
    uint32_t m_maxcount;
    int m_histolevels;
    uint32_t *m_histodat;  // durations in each bin
    uint32_t *m_histolvl;  // upper ends of the bins; the last bin has none

    void add(uint32_t duration);
};

#endif
