// The frame memory pool: a few preallocated blocks of three sizes for frame records and frame data.
// Requests that the pool can't serve go to the general heap, so they fail only when the heap is
// exhausted.

#ifndef GOLT_MEM_H
#define GOLT_MEM_H

#include "golt_common.h"

/// Sets up the pool; a pool that is up gets the same blocks once more. Without memory for all of
/// them it is smaller.
GOLT_EXPORT void GOLT_memInit();

/// Releases every block of the pool, also those that are out: all frames have to be destroyed
/// before.
GOLT_EXPORT void GOLT_memClose();

/// A block of at least size bytes with undefined contents, or null. The caller owns it until
/// GOLT_freeMem.
GOLT_EXPORT uint8_t *GOLT_allocMem(uint32_t size);

/// Releases a block of GOLT_allocMem; null is ignored.
GOLT_EXPORT void GOLT_freeMem(uint8_t *ptr);

#endif
