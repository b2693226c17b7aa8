#include "ts_time.h"

#include <gtest/gtest.h>

#include "byte_view.h"
#include "bytes.h"
#include "ts_watch.h"

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

// A packet whose PES packet begins after an adaptation field of the size; time: its last byte but
// one, with marker bit.
Bytes watched(uint8_t field, uint8_t time)
{
    Bytes packet = hex("47410130") + be(field, 1) + Bytes(field, 0xFF) +
                   hex("000001C0 0000 808005 21000100") + be(time, 1);
    packet.resize(188, 0xFF);
    return packet;
}

TEST(TsWatch, SeesWhetherTimesMove)
{
    TsWatch still(0x101), moving(0x101);
    for (const Bytes &packet : {watched(0, 1), watched(100, 1)}) {
        ASSERT_TRUE(still.wants(packet.data()));
        still.look(packet.data());
        moving.look(packet.data());
    }
    EXPECT_TRUE(still.stands_still());
    moving.look(watched(7, 3).data());
    EXPECT_FALSE(moving.stands_still());
    EXPECT_FALSE(moving.wants(watched(7, 3).data()));

    // Without room for a PES header there is nothing to see.
    TsWatch other(0x101);
    Bytes packet = watched(0, 1);
    packet[4] = 182;
    other.look(packet.data());
    packet[4] = 255;
    other.look(packet.data());
    EXPECT_EQ(other.frames(), 0u);
}

}  // namespace
