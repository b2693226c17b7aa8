#include "golt_mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "golt_poison.h"
#include "heap.h"

namespace {

// Which block of the pool serves a request shows only in what is served next, so the cases take
// blocks, give them back, and look at which addresses come again.
typedef std::vector<uint8_t *> Blocks;

Blocks take(size_t count, uint32_t size)
{
    Blocks blocks(count);
    for (uint8_t *&block : blocks) {
        block = GOLT_allocMem(size);
        std::fill_n(block, size, uint8_t{0xA5});
    }
    return blocks;
}

void give(const Blocks &blocks)
{
    std::for_each(blocks.begin(), blocks.end(), GOLT_freeMem);
}

TEST(Pool, ServesTheSmallestFreeBlockThatFitsAndThenTheHeap)
{
    GOLT_freeMem(GOLT_allocMem(100));  // from the heap while the pool is down
    GOLT_memInit();
    const Blocks pool = take(7, 0x400);
    const Blocks heap = {GOLT_allocMem(0x400), GOLT_allocMem(0x20001)};
    for (uint8_t *block : heap)
        EXPECT_EQ(std::count(pool.begin(), pool.end(), block), 0);
    give(heap);
    give(pool);
    const Blocks others = {GOLT_allocMem(0x20001), GOLT_allocMem(0x401), GOLT_allocMem(0x20000)};
    EXPECT_EQ(std::count(pool.begin(), pool.end(), others[0]), 0) << "larger than all";
    EXPECT_EQ(others[1], pool[4]) << "larger than the small ones";
    EXPECT_EQ(others[2], pool[6]) << "as large as the largest";
    give(others);
    EXPECT_EQ(take(4, 24), Blocks(pool.begin(), pool.begin() + 4)) << "the small ones first";
    EXPECT_EQ(take(1, 24), Blocks{pool[4]}) << "a larger one rather than the heap";
    EXPECT_EQ(GOLT_allocMem(0x14001), pool[6]);
    EXPECT_EQ(GOLT_allocMem(0x14000), pool[5]);
    GOLT_freeMem(pool[2]);
    EXPECT_EQ(GOLT_allocMem(0), pool[2]);
#ifdef GOLT_POISONING
    give(pool);
    GOLT_allocMem(101);
    EXPECT_FALSE(__asan_address_is_poisoned(pool[0] + 100));
    EXPECT_TRUE(__asan_address_is_poisoned(pool[0] + 101));
    EXPECT_TRUE(__asan_address_is_poisoned(pool[1]));
#endif
    GOLT_memClose();
    GOLT_freeMem(nullptr);
}

TEST(Pool, HasItsBlocksOnceMoreWhenItIsSetUpAgain)
{
    GOLT_memInit();
    GOLT_memInit();
    g_heap.granted = 0;
    {
        const LibraryCall watch;
        for (uint32_t i = 0; i < 14; ++i)
            EXPECT_NE(GOLT_allocMem(i < 2 ? 0x14001 : 1), nullptr) << i;
        EXPECT_EQ(GOLT_allocMem(1), nullptr);
    }
    g_heap.granted = INT_MAX;
    GOLT_memClose();
}

}  // namespace
