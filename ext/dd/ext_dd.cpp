#include "ext_dd.h"

GOLT_EXPORT bool GOLT_EXT_DDStart(uint8_t *, uint32_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_DDReset()
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_DDReadSingleFrame(GOLT_frame_t *)
{
    return true;
}
