// Bytes that nobody may touch. With the address sanitizer a poisoned range ends the program at the
// first access, whoever makes it; without it the two macros do nothing.

#ifndef GOLT_POISON_H
#define GOLT_POISON_H

#if defined(__SANITIZE_ADDRESS__)
#define GOLT_POISONING 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GOLT_POISONING 1
#endif
#endif

#ifdef GOLT_POISONING
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(addr, size) ((void)(addr), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(addr, size) ((void)(addr), (void)(size))
#endif

#endif
