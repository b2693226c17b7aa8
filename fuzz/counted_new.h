// The throwing new, for targets whose code takes its memory by it: led to the watch of heap.h, as the library's
// requests are. Sanitizers of memory have one of their own; there the limits of libFuzzer hold. For one source file of
// a program.

#ifndef GOLT_FUZZ_COUNTED_NEW_H
#define GOLT_FUZZ_COUNTED_NEW_H

#include <cstdlib>
#include <new>

#include "golt_poison.h"

#if !defined(GOLT_POISONING) && !defined(GOLT_UNWRITTEN)
extern "C" void __real_free(void *block);
// Not inlined: memcheck compares who allocates with who frees.
__attribute__((noinline)) void *operator new(size_t size)
{
    void *const block = malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
__attribute__((noinline)) void operator delete(void *block) noexcept
{
    __real_free(block);
}
__attribute__((noinline)) void operator delete(void *block, size_t /*size*/) noexcept
{
    __real_free(block);
}
#endif

#endif
