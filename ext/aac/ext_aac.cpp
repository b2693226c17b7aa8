#include "ext_aac.h"

GOLT_EXPORT bool GOLT_EXT_AACStart(uint8_t *, uint32_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_AACReset()
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_AACReadSingleFrame(GOLT_frame_t *)
{
    return true;
}
