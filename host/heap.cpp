#include "heap.h"

#include <cstdint>
#include <cstdlib>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

void fill_heap(size_t size)
{
    // Linux from 5.14 on; an older one refuses it, and fills the pages in later.
#ifdef MADV_POPULATE_WRITE
    void *const block = malloc(size);
    if (block == nullptr) return;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + size) / page * page;
    if (end > begin) madvise(reinterpret_cast<void *>(begin), end - begin, MADV_POPULATE_WRITE);
    free(block);
#else
    static_cast<void>(size);
#endif
}

void keep_large_blocks()
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);
#endif
}
