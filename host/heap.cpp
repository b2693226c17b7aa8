#include "heap.h"

#include <cstdlib>
#include <memory>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

void fill_heap(size_t size)
{
    // Linux from 5.14 on; an older one refuses it, and fills the pages in later.
#ifdef MADV_POPULATE_WRITE
    void *const block = malloc(size);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *begin = block;
    if (block != nullptr && std::align(page, page, begin, size) != nullptr)
        madvise(begin, size / page * page, MADV_POPULATE_WRITE);
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
