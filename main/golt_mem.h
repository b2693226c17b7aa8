// The frame memory pool: a few preallocated blocks of three sizes for frame records and frame data.
// What the pool can't serve comes from the general heap, so a request fails only when the heap has
// nothing left.

#ifndef GOLT_MEM_H
#define GOLT_MEM_H

#include "golt_common.h"

/// Sets the pool up; does nothing while it is up. Blocks that can't be had leave a smaller pool.
GOLT_EXPORT void GOLT_memInit();

/// Releases every block of the pool, also those that are out: all frames have to be destroyed
/// before.
GOLT_EXPORT void GOLT_memClose();

/// A block of at least size bytes with undefined contents, or null. The caller owns it until
/// GOLT_freeMem.
GOLT_EXPORT uint8_t *GOLT_allocMem(uint32_t size);

/// Gives a block of GOLT_allocMem back; null is ignored.
GOLT_EXPORT void GOLT_freeMem(uint8_t *ptr);

#endif
