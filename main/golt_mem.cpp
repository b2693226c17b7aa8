#include "golt_mem.h"

#include <cstdlib>
#include <new>

#include "golt_poison.h"

namespace {

struct bucket_def {
    int size;   // bytes per block
    int count;  // number of blocks
};

const bucket_def buckets[] = {
    {0x400, 4},
    {0x14000, 2},
    {0x20000, 1},
    {0, 0},
};

struct bucket_mem {
    bucket_mem *m_next;
    uint8_t *memptr;  // poisoned, but for the bytes requested while the block is out
    int m_size;
    bool m_fAvail;
};

// In the order of the table, smallest blocks first, so that the first block that fits is the
// smallest.
bucket_mem *g_mem = nullptr;
bool g_bucketsInitialised = false;

bucket_mem *make_bucket(int size)
{
    bucket_mem *bucket = new (std::nothrow) bucket_mem();
    if (bucket == nullptr) return nullptr;
    bucket->memptr = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(size)));
    bucket->m_size = size;
    bucket->m_fAvail = bucket->memptr != nullptr;
    if (bucket->memptr != nullptr)
        ASAN_POISON_MEMORY_REGION(bucket->memptr, static_cast<size_t>(size));
    return bucket;
}

// Null while the pool is down.
bucket_mem *first_bucket()
{
    return g_bucketsInitialised ? g_mem : nullptr;
}

}  // namespace

GOLT_EXPORT void GOLT_memInit()
{
    bucket_mem **link = &g_mem;
    while (*link != nullptr)
        link = &(*link)->m_next;
    for (const bucket_def *row = buckets; row->size != 0; ++row) {
        for (int i = 0; i < row->count; ++i) {
            bucket_mem *bucket = make_bucket(row->size);
            if (bucket == nullptr) continue;
            *link = bucket;
            link = &bucket->m_next;
        }
    }
    g_bucketsInitialised = true;
}

GOLT_EXPORT void GOLT_memClose()
{
    while (g_mem != nullptr) {
        bucket_mem *bucket = g_mem;
        g_mem = bucket->m_next;
        std::free(bucket->memptr);
        delete bucket;
    }
    g_bucketsInitialised = false;
}

GOLT_EXPORT uint8_t *GOLT_allocMem(uint32_t size)
{
    for (bucket_mem *bucket = first_bucket(); bucket != nullptr; bucket = bucket->m_next) {
        if (!bucket->m_fAvail || static_cast<uint32_t>(bucket->m_size) < size) continue;
        bucket->m_fAvail = false;
        ASAN_UNPOISON_MEMORY_REGION(bucket->memptr, size);
        return bucket->memptr;
    }
    // At least one byte: an empty frame has to differ from no memory.
    return static_cast<uint8_t *>(std::malloc(size != 0 ? size : 1));
}

GOLT_EXPORT void GOLT_freeMem(uint8_t *ptr)
{
    if (ptr == nullptr) return;
    for (bucket_mem *bucket = first_bucket(); bucket != nullptr; bucket = bucket->m_next) {
        if (bucket->memptr != ptr) continue;
        bucket->m_fAvail = true;
        ASAN_POISON_MEMORY_REGION(bucket->memptr, static_cast<size_t>(bucket->m_size));
        return;
    }
    std::free(ptr);
}
