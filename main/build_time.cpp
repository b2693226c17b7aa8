#include "build_time.h"

const char *const g_GOLT_buildString = "built: " __DATE__ ", " __TIME__;
