// The functions that a host calls by name: the exports of the driver. Everything else is done
// through the object that GOLT_CreateRemuxerDriver returns. The host calls from one thread at a time.

#ifndef LIBGOLT_H
#define LIBGOLT_H

#include "golt_common.h"
#include "pela/PELARemuxerDriver.h"

/// Makes the one driver and its pool of frame memory; an existing driver is destroyed first, and
/// with it all frames that still exist. Prints the library's version. Null when there is no memory.
GOLT_EXPORT PELA::IRemuxerDriver GOLT_CreateRemuxerDriver();

/// Destroys the driver, if there is one. Every frame has to be destroyed before.
GOLT_EXPORT void GOLT_DestroyRemuxerDriver();

/// Name and version of the library, a static text. Works without a driver.
GOLT_EXPORT const char *GOLT_version();

#endif
