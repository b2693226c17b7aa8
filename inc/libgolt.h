// What a host calls by name: the exports of the driver. All further work runs through the object
// that GOLT_CreateRemuxerDriver returns. The host makes its calls from one thread at a time.

#ifndef LIBGOLT_H
#define LIBGOLT_H

#include "golt_common.h"
#include "pela/PELARemuxerDriver.h"

/// Makes the one driver and its pool of frame memory; a driver that is still there is destroyed
/// first, and with it all frames that weren't. Prints the library's version. Null when there is no
/// memory.
GOLT_EXPORT PELA::IRemuxerDriver GOLT_CreateRemuxerDriver();

/// Destroys the driver, if there is one. Every frame has to be destroyed before.
GOLT_EXPORT void GOLT_DestroyRemuxerDriver();

/// Name and version of the library, a static text. Works without a driver.
GOLT_EXPORT const char *GOLT_version();

#endif
