#include "ext_h264.h"

GOLT_EXPORT bool GOLT_EXT_H264Start(uint8_t *, uint32_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_H264Reset()
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_H264ReadSingleFrame(GOLT_frame_t *)
{
    return true;
}
