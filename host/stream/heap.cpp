#include "heap.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Bytes. glibc raises its threshold no further than to 512 KiB with 32-bit pointers, and 32 MiB with
// 64-bit ones.
constexpr size_t LARGEST = sizeof(void *) == 4 ? 448 * 1024 : 16 * 1024 * 1024;

// The loader's addresses are numbers.
void *place(uintptr_t address)
{
    return reinterpret_cast<void *>(address);  // NOLINT(performance-no-int-to-ptr)
}

// Of a program or shared object, what is only read, and is as in its file.
int release_object(dl_phdr_info *object, size_t, void *)
{
    const ElfW(Phdr) *const end = object->dlpi_phdr + object->dlpi_phnum;
    for (const ElfW(Phdr) *header = object->dlpi_phdr; header != end; ++header) {
        if (header->p_type != PT_DYNAMIC) continue;
        const auto *entry =
            static_cast<const ElfW(Dyn) *>(place(object->dlpi_addr + header->p_vaddr));
        for (; entry->d_tag != DT_NULL; ++entry)
            if (entry->d_tag == DT_TEXTREL) return 0;
    }
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (const ElfW(Phdr) *header = object->dlpi_phdr; header != end; ++header) {
        if (header->p_type != PT_LOAD || (header->p_flags & PF_W) != 0) continue;
        const uintptr_t begin = (object->dlpi_addr + header->p_vaddr + page - 1) / page * page;
        const uintptr_t after =
            (object->dlpi_addr + header->p_vaddr + header->p_memsz) / page * page;
        if (begin < after) madvise(place(begin), after - begin, MADV_DONTNEED);
    }
    return 0;
}

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

void release_start_up()
{
    // A debugger would lose its breakpoints.
#ifdef NDEBUG
    dl_iterate_phdr(release_object, nullptr);
#else
    (void)release_object;
#endif
}
