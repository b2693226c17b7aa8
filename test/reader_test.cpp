#include "golt_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "golt_avcc.h"

namespace {

TEST(Reader, ReadsFieldsUpToTheLastByte)
{
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    golt_reader_t reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.get_u8(), 1u);
    EXPECT_EQ(reader.get_u16(), 0x0203u);
    EXPECT_EQ(reader.get_u32(), 0x04050607u);
    reader.skip(1);
    EXPECT_EQ(reader.take(1), bytes + 8);
    EXPECT_EQ(reader.take(0), bytes + 9);
    EXPECT_FALSE(reader.f_short());
    EXPECT_EQ(reader.left(), 0u);
}

TEST(Reader, StaysShortOnceAReadRanPastTheEnd)
{
    const uint8_t bytes[] = {1, 2, 3};
    golt_reader_t reader(bytes, sizeof bytes);
    EXPECT_EQ(reader.get_u32(), 0u);
    EXPECT_TRUE(reader.f_short());
    EXPECT_EQ(reader.get_u8(), 0u) << "a byte that is there, after one that wasn't";
    EXPECT_EQ(reader.take(0xFFFFFFFF), nullptr);
    EXPECT_EQ(reader.left(), 0u);
}

TEST(AvcParameterSets, EndWhereTheRecordEnds)
{
    const struct {
        const char *name;
        std::vector<uint8_t> record;
        std::string sets;  // a letter for each byte, a comma after each set
    } rows[] = {
        {"one of each", {0xE1, 0, 2, 'a', 'b', 1, 0, 1, 'c'}, "ab,c,"},
        {"reserved bits don't count", {0xE0, 1, 0, 1, 'c'}, "c,"},
        {"eight bits count the second kind", {0xE0, 0x20, 0, 1, 'c'}, "c,"},
        {"an empty set", {0xE1, 0, 0, 1, 0, 1, 'c'}, ",c,"},
        {"a set to the last byte", {0xE1, 0, 2, 'a', 'b'}, "ab,"},
        {"cut inside a set", {0xE2, 0, 1, 'a', 0, 2, 'b'}, "a,"},
        {"cut inside a length", {0xE2, 0, 1, 'a', 0}, "a,"},
        {"nothing", {}, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        avc_parameter_sets_t walk(
            golt_reader_t(row.record.data(), static_cast<uint32_t>(row.record.size())));
        std::string sets;
        avc_parameter_set_t set;
        while (walk.next(&set))
            sets.append(set.pb_unit, set.pb_unit + set.ui4_size).append(",");
        EXPECT_EQ(sets, row.sets);
    }
}

}  // namespace
