// Whether every byte that the library gives away was written by somebody. Only the memory sanitizer knows; elsewhere
// this does nothing.

#ifndef GOLT_TEST_WRITTEN_H
#define GOLT_TEST_WRITTEN_H

#include <cstddef>

#include "golt_poison.h"

/// Ends the program if one of the bytes depends on memory that nobody wrote.
inline void require_written(const void *bytes, size_t size)
{
#ifdef GOLT_UNWRITTEN
    __msan_check_mem_is_initialized(bytes, size);
#else
    (void)bytes;
    (void)size;
#endif
}

/// The same of a number or a record without gaps.
template <typename Value> void require_written(const Value &value)
{
    require_written(&value, sizeof value);
}

#endif
