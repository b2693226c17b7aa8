#include "interrupt.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include <unistd.h>

namespace {

constexpr struct {
    int number;
    const char *name;
} SIGNALS[] = {{SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}, {SIGHUP, "SIGHUP"}};

// Signals so close together are one stop: timeout(1) sends one to its child and one to the child's group.
constexpr int64_t ONE_STOP_MS = 500;

volatile std::sig_atomic_t g_signal = 0;
int64_t g_signal_ms = 0;  // when it came
const char *volatile g_file = nullptr;

extern "C" void note_signal(int number)
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const int64_t now_ms = int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
    if (g_signal == 0) {
        g_signal_ms = now_ms;
        g_signal = number;
        return;
    }
    if (now_ms - g_signal_ms < ONE_STOP_MS) return;
    if (g_file != nullptr) unlink(g_file);
    std::signal(number, SIG_DFL);
    raise(number);
}

}  // namespace

void note_stop_signals()
{
    struct sigaction action = {};
    action.sa_handler = note_signal;  // without SA_RESTART: a write to a full pipe has to end
    for (const auto &row : SIGNALS)
        sigaddset(&action.sa_mask, row.number);
    for (const auto &row : SIGNALS) {
        struct sigaction before = {};
        sigaction(row.number, nullptr, &before);
        // nohup and the like have it ignored.
        if (before.sa_handler == SIG_DFL) sigaction(row.number, &action, nullptr);
    }
}

int stop_signal()
{
    return g_signal;
}

const char *stop_signal_name()
{
    for (const auto &row : SIGNALS) {
        if (row.number == g_signal) return row.name;
    }
    return "";
}

void remove_at_second_signal(const char *path)
{
    g_file = path;
}

void die_of_stop_signal()
{
    if (g_signal == 0) return;
    std::fflush(nullptr);
    std::signal(g_signal, SIG_DFL);
    raise(g_signal);
}
