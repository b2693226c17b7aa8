#include "dmx_m2ts.h"

#include <gtest/gtest.h>

#include "heap.h"
#include "host_double.h"

namespace {

constexpr int REFUSED = -1;

// Before main: every test comes after another one that may have opened a source.
const bool g_read_at_start = [] {
    GOLT_frame_t frame = {};
    return GOLT_DMX_M2TSReadFrame(&frame);
}();

TEST(M2ts, ReadsNothingBeforeItIsOpened)
{
    EXPECT_FALSE(g_read_at_start);
}

// Packets hold no second sync byte; their stamps have the two high bits set.
Bytes packet(uint8_t number)
{
    return Bytes{0x47} + Bytes(187, static_cast<uint8_t>(0x80 + number));
}

Bytes records(uint8_t count)
{
    Bytes file;
    for (uint8_t i = 0; i < count; ++i)
        file += be32(0xC0000000u + i) + packet(i);
    return file;
}

Bytes cut(Bytes file, size_t front, size_t back)
{
    return Bytes(file.begin() + static_cast<ptrdiff_t>(front),
                 file.end() - static_cast<ptrdiff_t>(back));
}

TEST(M2ts, HandsOutEveryWholePacketWithItsStamp)
{
    Bytes misleading = records(5), lost = records(5);
    misleading[1] = 0x47;
    lost[3 * 192 + 4] = 0x46;
    const struct {
        const char *name;
        Bytes file;
        int frames;
    } rows[] = {
        {"whole", records(5), 5},
        {"bytes before", Bytes(10) + records(5), 5},
        {"cut in a packet", cut(records(5), 0, 1), 4},
        {"cut in a stamp", cut(records(5), 0, 190), 4},
        {"sync lost", lost, 3},
        {"empty", {}, REFUSED},
        {"no sync byte", Bytes(1000), REFUSED},
        {"packets of 188 bytes", packet(0) + packet(1) + packet(2) + packet(3), REFUSED},
        {"a sync byte in the first stamp", misleading, REFUSED},
        {"two records", records(2), REFUSED},
        {"no room for the first stamp", cut(records(5), 4, 0), REFUSED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Source source(row.file);
        EXPECT_EQ(GOLT_DMX_M2TSInit(Source::read_proc, Source::seek_proc, &source),
                  row.frames != REFUSED);
        EXPECT_TRUE(GOLT_DMX_M2TSSeekToTime(1000) && GOLT_DMX_M2TSSeekToBytes(0));
        const std::vector<Frame> frames = read_frames(GOLT_DMX_M2TSReadFrame);
        EXPECT_EQ(static_cast<int>(frames.size()), std::max(row.frames, 0));
        for (uint8_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].time_ms, 0xC0000000u + i);
            EXPECT_EQ(frames[i].data, packet(i));
        }
        GOLT_DMX_M2TSDestroy();
    }
}

TEST(M2ts, LosesNoRecordWhenMemoryIsRefusedOnce)
{
    Source source(records(3));
    ASSERT_TRUE(GOLT_DMX_M2TSInit(Source::read_proc, Source::seek_proc, &source));
    GOLT_frame_t frame = {};
    {
        const LibraryCall library;
        g_heap.granted = 0;
        EXPECT_FALSE(GOLT_DMX_M2TSReadFrame(&frame));
    }
    g_heap = {};
    EXPECT_EQ(read_frames(GOLT_DMX_M2TSReadFrame).size(), 3u);
    GOLT_DMX_M2TSDestroy();
}

// The stamp of a first packet at offset 2 would begin at -2. Whether that is a place is the host's
// to say.
TEST(M2ts, AsksForTheFirstStampWhereverItIs)
{
    static int64_t asked;
    const tpf_seek accept = [](void *source, int64_t offset) {
        asked = offset;
        return offset < 0 ? 0 : Source::seek_proc(source, offset);
    };
    Source source(cut(records(5), 2, 0));
    EXPECT_TRUE(GOLT_DMX_M2TSInit(Source::read_proc, accept, &source));
    EXPECT_EQ(asked, -2);
    // The source is where the second confirmation left it, in a packet.
    GOLT_frame_t frame = {};
    EXPECT_FALSE(GOLT_DMX_M2TSReadFrame(&frame));
    EXPECT_TRUE(frame.pb_data == nullptr && frame.ui4_size == 0)
        << "nothing that a host could write";
    GOLT_DMX_M2TSDestroy();
}

}  // namespace
