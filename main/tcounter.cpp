#include "tcounter.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr int HISTOGRAM_LEVELS = 4;
constexpr uint32_t LEVELS_USEC[HISTOGRAM_LEVELS - 1] = {500, 1500, 10000};
constexpr clock_t NOT_RUNNING = -1;
constexpr long USEC_PER_SEC = 1000000;
constexpr long NSEC_PER_USEC = 1000;
// Half an hour: what a clock_t of 32 bits can hold of microseconds without a sign.
constexpr clock_t CLOCK_PERIOD_USEC = 1800 * USEC_PER_SEC;

// Starts again from 0 after CLOCK_PERIOD_USEC.
clock_t now_usec()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t usec = int64_t{now.tv_sec} * USEC_PER_SEC + now.tv_nsec / NSEC_PER_USEC;
    return static_cast<clock_t>(usec % CLOCK_PERIOD_USEC);
}

// Rounded down. The library does without libm.
uint64_t square_root(uint64_t value)
{
    uint64_t root = 0;
    for (uint64_t bit = uint64_t{1} << 31; bit != 0; bit >>= 1) {
        if ((root | bit) * (root | bit) <= value) root |= bit;
    }
    return root;
}

}  // namespace

timecounter::timecounter(const char *name, int maxcount)
    : m_szName{}
    , m_startTime(NOT_RUNNING)
    , m_sumDur(0)
    , m_sumDurSq(0)
    , m_maxDur(0)
    , m_count(0)
    , m_maxcount(static_cast<uint32_t>(maxcount))
    , m_histolevels(HISTOGRAM_LEVELS)
    , m_histodat(new (std::nothrow) uint32_t[HISTOGRAM_LEVELS]())
    , m_histolvl(new (std::nothrow) uint32_t[HISTOGRAM_LEVELS]())
{
    memcpy(m_szName, name, strnlen(name, sizeof m_szName));
    if (m_histolvl != nullptr) memcpy(m_histolvl, LEVELS_USEC, sizeof LEVELS_USEC);
}

timecounter::~timecounter()
{
    delete[] m_histodat;
    delete[] m_histolvl;
}

void timecounter::reset()
{
    m_startTime = NOT_RUNNING;
    m_sumDur = 0;
    m_sumDurSq = 0;
    m_maxDur = 0;
    m_count = 0;
    for (int bin = 0; m_histodat != nullptr && bin < m_histolevels; ++bin)
        m_histodat[bin] = 0;
}

void timecounter::start()
{
    m_startTime = now_usec();
}

void timecounter::stop()
{
    if (m_startTime == NOT_RUNNING) return;
    clock_t duration = now_usec() - m_startTime;
    if (duration < 0) duration += CLOCK_PERIOD_USEC;
    m_startTime = NOT_RUNNING;
    add(static_cast<uint32_t>(duration));
}

void timecounter::print()
{
    const uint64_t count = m_count != 0 ? m_count : 1;
    const uint64_t mean = m_sumDur / count;
    const uint64_t deviation = square_root(m_sumDurSq / count - mean * mean);
    printf("GOLT: %.*s: %u x %u us, deviation %u, max %u", static_cast<int>(sizeof m_szName),
           m_szName, m_count, static_cast<uint32_t>(mean), static_cast<uint32_t>(deviation),
           m_maxDur);
    for (int bin = 0; m_histodat != nullptr && m_histolvl != nullptr && bin < m_histolevels;
         ++bin) {
        if (bin < m_histolevels - 1)
            printf(", below %u: %u", m_histolvl[bin], m_histodat[bin]);
        else
            printf(", above: %u", m_histodat[bin]);
    }
    printf("\n");
}

void timecounter::add(uint32_t duration)
{
    if (m_maxcount != 0 && m_count == m_maxcount) reset();
    ++m_count;
    m_sumDur += duration;
    m_sumDurSq += uint64_t{duration} * duration;
    if (duration > m_maxDur) m_maxDur = duration;
    if (m_histodat == nullptr || m_histolvl == nullptr) return;
    int bin = 0;
    while (bin < m_histolevels - 1 && duration >= m_histolvl[bin])
        ++bin;
    ++m_histodat[bin];
}
