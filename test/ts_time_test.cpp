#include "ts_time.h"

#include <gtest/gtest.h>

#include "byte_view.h"
#include "bytes.h"

namespace {

constexpr int64_t HOUR = 3600 * TICKS_PER_SECOND;

TEST(CutClock, TakesTheNearestTimeThatIsMeant)
{
    const struct {
        const char *name;
        int64_t expected, first, second;  // the true times
    } rows[] = {
        {"a file that begins hours after 0", 0, 10 * HOUR, 10 * HOUR + 1},
        {"a little before the expected", 2 * HOUR, 2 * HOUR - HOUR / 2, 2 * HOUR},
        {"past the end of the range", 0, 12 * HOUR, 14 * HOUR},
        {"back before 0", 0, 0, -90},
        {"a stream hours behind the other", 30 * HOUR, 30 * HOUR, 25 * HOUR},
    };
    for (const unsigned bits : {32u, PTS_BITS}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            const uint64_t mask = (uint64_t{1} << bits) - 1;
            CutClock clock(bits, row.expected);
            EXPECT_EQ(clock.follow(static_cast<uint64_t>(row.first) & mask), row.first);
            clock.settle();
            EXPECT_EQ(clock.follow(static_cast<uint64_t>(row.second) & mask), row.second);
        }
    }
}

TEST(ByteView, StaysShort)
{
    const Bytes bytes = hex("01020304");
    ByteView in{bytes.data(), bytes.size()};
    EXPECT_EQ(in.get(3), 0x010203u);
    EXPECT_FALSE(in.f_short);
    in.get(2);
    EXPECT_TRUE(in.f_short);
    EXPECT_EQ(in.left, 0u);
    in.take(0);
    EXPECT_TRUE(in.f_short);
}

}  // namespace
