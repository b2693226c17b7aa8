#include "heap.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// Bytes. glibc raises its threshold no further than to 512 KiB with 32-bit pointers, and 32 MiB with
// 64-bit ones.
constexpr size_t LARGEST = sizeof(void *) == 4 ? 448 * 1024 : 16 * 1024 * 1024;

}  // namespace

void prepare_heap(size_t size)
{
    size = std::min(size, LARGEST);
    // A large block comes from the system; having got it back, glibc keeps blocks up to its size on
    // the heap (mallopt(3), M_MMAP_THRESHOLD). Volatile, or else the compiler leaves both calls out.
    void *volatile large = malloc(size);
    free(large);

    // Linux from 5.14 on; an older one refuses it, and fills the pages in later.
#ifdef MADV_POPULATE_WRITE
    void *const block = malloc(size);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *begin = block;
    if (block != nullptr && std::align(page, page, begin, size) != nullptr)
        madvise(begin, size / page * page, MADV_POPULATE_WRITE);
    free(block);
#endif
}
