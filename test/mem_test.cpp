#include "golt_mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "golt_poison.h"

namespace {

// Which block of the pool serves a request shows only in what is served next, so the cases take
// blocks, give them back, and look at which addresses come again.
class Pool : public ::testing::Test {
protected:
    Pool() { GOLT_memInit(); }
    ~Pool() override { GOLT_memClose(); }

    static std::vector<uint8_t *> take(int count, uint32_t size)
    {
        std::vector<uint8_t *> blocks;
        for (int i = 0; i < count; ++i) {
            blocks.push_back(GOLT_allocMem(size));
            memset(blocks.back(), 0xA5, size);
        }
        return blocks;
    }

    static void give(const std::vector<uint8_t *> &blocks)
    {
        for (uint8_t *block : blocks)
            GOLT_freeMem(block);
    }
};

TEST_F(Pool, ServesTheSmallestFreeBlockThatFits)
{
    const std::vector<uint8_t *> small = take(4, 24);
    uint8_t *middle = GOLT_allocMem(0x14000);
    uint8_t *other_middle = GOLT_allocMem(0x400 + 1);
    uint8_t *large = GOLT_allocMem(0x14001);
    give({middle, large});

    EXPECT_EQ(GOLT_allocMem(24), middle)
        << "a small request takes a larger block rather than the heap";
    EXPECT_EQ(GOLT_allocMem(0x20000), large);
    GOLT_freeMem(small[2]);
    EXPECT_EQ(GOLT_allocMem(0), small[2]);
    give({middle, other_middle, large});
    give(small);
}

TEST_F(Pool, FallsBackToTheHeapAndStaysAsItWas)
{
    std::vector<uint8_t *> pool = take(7, 0x400);
    const std::vector<uint8_t *> heap = {GOLT_allocMem(0x400), GOLT_allocMem(0x20001)};
    for (uint8_t *block : heap) {
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::count(pool.begin(), pool.end(), block), 0);
        GOLT_freeMem(block);
    }
    give(pool);
    std::vector<uint8_t *> again = take(7, 0x400);
    EXPECT_EQ(again, pool) << "the order of the search is that of the table";
    give(again);
}

#ifdef GOLT_POISONING
TEST_F(Pool, LetsTheSanitizerSeeTheEndOfARequest)
{
    uint8_t *block = GOLT_allocMem(101);
    EXPECT_FALSE(__asan_address_is_poisoned(block + 100));
    EXPECT_TRUE(__asan_address_is_poisoned(block + 101));
    GOLT_freeMem(block);
    EXPECT_TRUE(__asan_address_is_poisoned(block));
}
#endif

TEST(PoolThatIsDown, ServesFromTheHeap)
{
    uint8_t *block = GOLT_allocMem(100);
    ASSERT_NE(block, nullptr);
    memset(block, 1, 100);
    GOLT_freeMem(block);
    GOLT_freeMem(nullptr);
    GOLT_memClose();
}

}  // namespace
