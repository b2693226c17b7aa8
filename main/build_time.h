#ifndef GOLT_BUILD_TIME_H
#define GOLT_BUILD_TIME_H

/// When the library was built, in the form "built: Aug 24 2011, 11:53:06". With SOURCE_DATE_EPOCH
/// set at build time it is that moment, and the build is reproducible.
extern const char *const g_GOLT_buildString;

#endif
