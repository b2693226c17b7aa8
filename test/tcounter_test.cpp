#include "tcounter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace {

const timespec *g_now = nullptr;  // of the clock; null: the machine's

}  // namespace

// The linker leads the calls of clock_gettime here.
extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
}

int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    if (g_now == nullptr || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
    *now = *g_now;
    return 0;
}

namespace {

std::string printed(timecounter &counter)
{
    testing::internal::CaptureStdout();
    counter.print();
    return testing::internal::GetCapturedStdout();
}

TEST(TimeCounter, CountsInMicroseconds)
{
    const struct {
        const char *name;
        timespec start, stop;
        const char *duration;
    } rows[] = {
        {"no time at all", {5, 7000}, {5, 7999}, "0"},
        {"within a second", {5, 1000}, {5, 2001000}, "2000"},
        {"over seconds", {5, 999999000}, {7, 1000}, "1000002"},
        {"over the end of the clock", {1799, 999999000}, {1800, 4000}, "5"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        timecounter counter("a name", 0);
        counter.stop();  // none is running
        g_now = &row.start;
        counter.start();
        g_now = &row.stop;
        counter.stop();
        counter.stop();
        g_now = nullptr;
        const std::string duration = row.duration;
        EXPECT_THAT(printed(counter),
                    ::testing::StartsWith("GOLT: a name: 1 x " + duration +
                                          " us, deviation 0, max " + duration + ","));
    }
}

struct Probe : timecounter {
    using timecounter::add;
    using timecounter::m_maxcount;
    using timecounter::timecounter;
};

TEST(TimeCounter, SortsDurationsIntoItsLevels)
{
    Probe counter("x", 7);
    for (const uint32_t duration : {3u, 5u})
        counter.add(duration);
    EXPECT_EQ(printed(counter), "GOLT: x: 2 x 4 us, deviation 1, max 5, below 500: 2, "
                                "below 1500: 0, below 10000: 0, above: 0\n");
    counter.reset();
    for (const uint32_t duration : {500u, 499u, 1500u, 1499u, 10000u, 9999u, 0xFFFFFFFFu})
        counter.add(duration);
    EXPECT_EQ(printed(counter), "GOLT: x: 7 x 613570184 us, deviation 1502924077, max 4294967295, "
                                "below 500: 1, below 1500: 2, below 10000: 2, above: 2\n");
    counter.add(0);
    EXPECT_THAT(printed(counter), ::testing::StartsWith("GOLT: x: 1 x 0 us, deviation 0, max 0, "));
}

TEST(TimeCounter, KeepsItsNumberAndItsNameAsTheyAre)
{
    EXPECT_EQ(Probe("", -2).m_maxcount, 0xFFFFFFFEu);
    timecounter counter(std::string(70, 'n').c_str(), 0);
    EXPECT_THAT(printed(counter), ::testing::StartsWith("GOLT: " + std::string(64, 'n') +
                                                        ": 0 x 0 us, deviation 0, max 0, "));
}

}  // namespace
