#include "dmx_m2ts.h"

#include <gtest/gtest.h>

#include "host_double.h"

namespace {

Bytes record(uint32_t stamp, uint32_t seed)
{
    Bytes packet = pattern(188, seed);
    for (uint8_t &byte : packet)
        byte = byte == 0x47 ? 0 : byte;
    packet[0] = 0x47;
    return be32(stamp) + packet;
}

Bytes records(uint32_t count)
{
    Bytes file;
    for (uint32_t i = 0; i < count; ++i)
        file += record(0xC0000000 + i, i);
    return file;
}

bool open(Source *source)
{
    return GOLT_DMX_M2TSInit(Source::read_proc, Source::seek_proc, source);
}

TEST(M2ts, HandsOutEveryPacketWithItsStamp)
{
    // Whole, with bytes in front, and with a last record that is cut short anywhere.
    for (const Bytes &front : {Bytes(), Bytes(10)}) {
        for (const size_t cut : {size_t{0}, size_t{1}, size_t{187}, size_t{190}}) {
            Bytes file = front + records(5);
            file.resize(file.size() - cut);
            Source source(file);
            ASSERT_TRUE(open(&source));
            EXPECT_TRUE(GOLT_DMX_M2TSSeekToTime(1000));
            EXPECT_TRUE(GOLT_DMX_M2TSSeekToBytes(0));
            const std::vector<Frame> frames = read_frames(GOLT_DMX_M2TSReadFrame);
            ASSERT_EQ(frames.size(), cut == 0 ? 5u : 4u);
            for (uint32_t i = 0; i < frames.size(); ++i) {
                EXPECT_EQ(frames[i].time_ms, 0xC0000000u + i) << "the two high bits stay";
                EXPECT_EQ(frames[i].type, static_cast<uint32_t>(GOLT_FT_MPEG2TS));
                const Bytes whole = record(0, i);
                EXPECT_EQ(frames[i].data, Bytes(whole.begin() + 4, whole.end()));
            }
            GOLT_DMX_M2TSDestroy();
        }
    }
}

TEST(M2ts, RefusesWhatItCannotConfirm)
{
    Bytes plain;
    for (uint32_t i = 0; i < 5; ++i) {
        const Bytes one = record(0, i);
        plain.insert(plain.end(), one.begin() + 4, one.end());
    }
    Bytes without_stamp = records(5);
    without_stamp.erase(without_stamp.begin(), without_stamp.begin() + 4);
    Bytes misleading = records(5);
    misleading[1] = 0x47;
    const struct {
        const char *name;
        Bytes file;
    } rows[] = {
        {"empty", {}},
        {"no sync byte", Bytes(1000)},
        {"packets of 188 bytes", plain},
        {"a sync byte in the first stamp", misleading},
        {"two records", records(2)},
        {"no room for the first stamp", without_stamp},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Source source(row.file);
        EXPECT_FALSE(open(&source));
        EXPECT_TRUE(read_frames(GOLT_DMX_M2TSReadFrame).empty());
    }
    Source deaf(records(5));
    deaf.refuse_seeks = true;
    EXPECT_FALSE(open(&deaf));
}

TEST(M2ts, EndsWhereSyncIsLost)
{
    Bytes file = records(5);
    file[3 * 192 + 4] = 0x46;
    Source source(file);
    ASSERT_TRUE(open(&source));
    EXPECT_EQ(read_frames(GOLT_DMX_M2TSReadFrame).size(), 3u);
    GOLT_DMX_M2TSDestroy();
}

}  // namespace
