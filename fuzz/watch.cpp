#include "watch.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "dmx_mkv_i.h"
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

double s_input_start = 0;  // processor time

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
    : m_start(seconds(CLOCK_MONOTONIC))
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
    const double taken = seconds(CLOCK_MONOTONIC) - m_start;
    s_longest = std::max(s_longest, taken);
#ifdef GOLT_FUZZING
    // On a busy machine time passes by itself. The processor's clock is asked seldom, as it is slow.
    if (taken > LONGEST_CALL)
        require(seconds(CLOCK_PROCESS_CPUTIME_ID) - s_input_start < LONGEST_CALL,
                "a call is short");
#endif
    g_heap.most = std::max(g_heap.most, m_most);
    require(g_heap.most < LARGEST_HEAP, "the heap stays small");
}

void begin_input()
{
    g_heap = {};
    g_hosts = {};
    g_TCacheEnabled = true;
    mkvctx = {};
    s_input_start = seconds(CLOCK_PROCESS_CPUTIME_ID);
}
