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
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::MatchesRegex("GOLT: a name: 1 x [0-9]+ us, deviation 0, max [0-9]+, "
                                        "below 500: 0, below 1500: 0, below 10000: 0, above: 1\n"));
}

struct Probe : timecounter {
    using timecounter::m_maxcount;
    using timecounter::timecounter;
};

TEST(TimeCounter, KeepsItsNumberAndItsNameAsTheyAre)
{
    EXPECT_EQ(Probe("", -2).m_maxcount, 0xFFFFFFFEu);
    testing::internal::CaptureStdout();
    timecounter(std::string(70, 'n').c_str(), 0).print();
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                ::testing::StartsWith("GOLT: " + std::string(64, 'n') + ": 0 x "));
}

}  // namespace
