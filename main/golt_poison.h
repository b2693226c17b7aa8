// Bytes that nobody may touch. With the address sanitizer a poisoned range ends the program at the
// first access, whoever makes it. With the memory sanitizer a range that is given out holds nothing
// until somebody writes there. Without either the two macros do nothing.

#ifndef GOLT_POISON_H
#define GOLT_POISON_H

#if defined(__SANITIZE_ADDRESS__)
#define GOLT_POISONING 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GOLT_POISONING 1
#elif __has_feature(memory_sanitizer)
#define GOLT_UNWRITTEN 1
#endif
#endif

#if defined(GOLT_POISONING)
#include <sanitizer/asan_interface.h>
#elif defined(GOLT_UNWRITTEN)
#include <sanitizer/msan_interface.h>
#define ASAN_POISON_MEMORY_REGION(addr, size) __msan_poison(addr, size)
#define ASAN_UNPOISON_MEMORY_REGION(addr, size) __msan_poison(addr, size)
#else
#define ASAN_POISON_MEMORY_REGION(addr, size) ((void)(addr), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(addr, size) ((void)(addr), (void)(size))
#endif

#endif
