#include "tcounter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(TimeCounter, CountsInMicroseconds)
{
    timecounter counter("a name", 3);
    counter.stop();  // none is running
    for (const long usec : {0, 2000, 600, 11000}) {
        counter.start();
        const timespec pause = {0, usec * 1000};
        nanosleep(&pause, nullptr);
        counter.stop();
        counter.stop();
    }
    // The fourth begins afresh; it lies above every level.
    testing::internal::CaptureStdout();
    counter.print();
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_LT(std::stoul(text.substr(text.rfind("max ") + 4)), 10000000u) << "11 ms, not hours";
    EXPECT_THAT(text,
                ::testing::MatchesRegex("GOLT: a name: 1 x [0-9]+ us, deviation 0, max [0-9]+, "
                                        "below 500: 0, below 1500: 0, below 10000: 0, above: 1\n"));
}

struct Probe : timecounter {
    using timecounter::add;
    using timecounter::m_maxcount;
    using timecounter::timecounter;
};

std::string printed(timecounter &counter)
{
    testing::internal::CaptureStdout();
    counter.print();
    return testing::internal::GetCapturedStdout();
}

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
