#include "watch.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "dmx_mkv_i.h"
#include "golt_poison.h"
#include "tcache.h"

extern "C" int usleep(useconds_t)
{
    return 0;
}

namespace {

// Inputs are far smaller than the files for which the limits are stated, but sanitizers are slow.
#ifdef GOLT_FUZZING
constexpr double LONGEST_CALL = 2.0;  // seconds
#endif
constexpr size_t LARGEST_HEAP = 64 * 1024 * 1024;  // bytes

double seconds(clockid_t clock)
{
    timespec t_now = {};
    clock_gettime(clock, &t_now);
    return static_cast<double>(t_now.tv_sec) + static_cast<double>(t_now.tv_nsec) * 1e-9;
}

size_t s_largest_heap = 0;  // of the inputs before this one

// The processor's clock is slow to ask: once in so many seconds is enough.
constexpr double CLOCK_AGE = 0.01;
double s_clock_asked = 0, s_clock = 0;  // when, and what it said

void ask_clock()
{
    const double now = seconds(CLOCK_MONOTONIC_COARSE);
    if (now - s_clock_asked < CLOCK_AGE) return;
    s_clock_asked = now;
    s_clock = seconds(CLOCK_PROCESS_CPUTIME_ID);
}

#ifdef GOLT_FUZZING
// After libFuzzer's own figures, in their form.
struct LastWords {
    ~LastWords()
    {
        fprintf(stderr, "stat::longest_call_ms: %.0f\nstat::largest_heap_kib: %zu\n",
                CallWatch::s_longest * 1000, std::max(s_largest_heap, g_heap.most) / 1024);
    }
};
const LastWords s_last_words;

#ifndef GOLT_POISONING
// A stream that can't be written to takes what the library prints without putting it into words, a quarter of the time
// of some targets. The build with sanitizers sees to that, too.
const bool s_f_silent = freopen("/dev/null", "r", stdout) != nullptr;
#endif
#endif

}  // namespace

work_t g_hosts;
double CallWatch::s_longest = 0;

void require(bool f_ok, const char *reason)
{
    if (f_ok) return;
    fprintf(stderr, "violated: %s\n", reason);
    abort();
}

CallWatch::CallWatch()
    : m_start(seconds(CLOCK_MONOTONIC_COARSE))
    , m_before(g_hosts)
    , m_held(g_heap.held)
    , m_most(g_heap.most)
{
    m_before.requests = g_heap.requests;
    g_heap.most = g_heap.held;
}

work_t CallWatch::work() const
{
    return {g_hosts.calls - m_before.calls, g_hosts.refused - m_before.refused,
            g_hosts.delivered - m_before.delivered, g_heap.requests - m_before.requests,
            g_heap.most - m_held};
}

CallWatch::~CallWatch()
{
    double taken = seconds(CLOCK_MONOTONIC_COARSE) - m_start;
    if (taken > s_longest) {
        // On a busy machine time passes by itself.
        taken = std::min(taken, seconds(CLOCK_PROCESS_CPUTIME_ID) - s_clock);
        s_longest = std::max(s_longest, taken);
    }
#ifdef GOLT_FUZZING
    require(s_longest < LONGEST_CALL, "a call is short");
#endif
    g_heap.most = std::max(g_heap.most, m_most);
    require(g_heap.most < LARGEST_HEAP, "the heap stays small");
}

void begin_input()
{
    s_largest_heap = std::max(s_largest_heap, g_heap.most);
    g_heap = {};
    g_hosts = {};
    g_TCacheEnabled = true;
    mkvctx = {};
    ask_clock();
}
