#include "heap.h"

#include <algorithm>
#include <malloc.h>

#include <cstdint>
#include <cstring>
#include <new>

#include "golt_poison.h"

HeapWatch g_heap;

// The linker's names for what it has replaced, and for what replaces it.
#if defined(__LP64__)
#define MANGLED_SIZE(head, tail) head##m##tail
#else
#define MANGLED_SIZE(head, tail) head##j##tail
#endif
#define REAL_NEW MANGLED_SIZE(__real__Znw, RKSt9nothrow_t)
#define WRAP_NEW MANGLED_SIZE(__wrap__Znw, RKSt9nothrow_t)
#define REAL_NEW_ARRAY MANGLED_SIZE(__real__Zna, RKSt9nothrow_t)
#define WRAP_NEW_ARRAY MANGLED_SIZE(__wrap__Zna, RKSt9nothrow_t)
#define REAL_DELETE_SIZED MANGLED_SIZE(__real__ZdlPv, )
#define WRAP_DELETE_SIZED MANGLED_SIZE(__wrap__ZdlPv, )

namespace {

// After each block of the library lie numbers that a reader past its end takes for something. Sanitizers see such
// readers themselves.
#if defined(GOLT_POISONING) || defined(GOLT_UNWRITTEN)
constexpr size_t BEYOND = 0;
#else
constexpr size_t BEYOND = 16;
#endif

bool is_refused(size_t size)
{
    if (size > SIZE_MAX - BEYOND) return true;
    if (!g_heap.f_watched) return false;
    ++g_heap.requests;
    if (g_heap.granted > 0) {
        --g_heap.granted;
        return false;
    }
    return g_heap.refused-- > 0;
}

void *count(void *block, size_t size)
{
    static const uint32_t numbers[] = {2, 2, 2, 2};
    if (block != nullptr) memcpy(static_cast<char *>(block) + size, numbers, BEYOND);
    if (!g_heap.f_watched || block == nullptr) return block;
    g_heap.held += malloc_usable_size(block);
    if (g_heap.held > g_heap.most) g_heap.most = g_heap.held;
    return block;
}

// Blocks of the throwing new, which a target's own code takes within a watch, aren't counted when taken.
void discount(void *block)
{
    if (g_heap.f_watched && block != nullptr)
        g_heap.held -= std::min(g_heap.held, malloc_usable_size(block));
}

}  // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
void *REAL_NEW(size_t size, const std::nothrow_t &tag);
void *REAL_NEW_ARRAY(size_t size, const std::nothrow_t &tag);
void __real__ZdlPv(void *block);
void REAL_DELETE_SIZED(void *block, size_t size);
void __real__ZdaPv(void *block);

void *__wrap_malloc(size_t size)
{
    return is_refused(size) ? nullptr : count(__real_malloc(size + BEYOND), size);
}

void *__wrap_calloc(size_t number, size_t size)
{
    return is_refused(number) ? nullptr
                              : count(__real_calloc(number + BEYOND, size), number * size);
}

void __wrap_free(void *block)
{
    discount(block);
    __real_free(block);
}

void *WRAP_NEW(size_t size, const std::nothrow_t &tag)
{
    return is_refused(size) ? nullptr : count(REAL_NEW(size + BEYOND, tag), size);
}

void *WRAP_NEW_ARRAY(size_t size, const std::nothrow_t &tag)
{
    return is_refused(size) ? nullptr : count(REAL_NEW_ARRAY(size + BEYOND, tag), size);
}

void __wrap__ZdlPv(void *block)
{
    discount(block);
    __real__ZdlPv(block);
}

void WRAP_DELETE_SIZED(void *block, size_t size)
{
    discount(block);
    REAL_DELETE_SIZED(block, size);
}

void __wrap__ZdaPv(void *block)
{
    discount(block);
    __real__ZdaPv(block);
}
}
