#include "ext_mp3.h"

GOLT_EXPORT bool GOLT_EXT_MP3Start(uint8_t *, uint32_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_MP3Reset()
{
    return true;
}

GOLT_EXPORT bool GOLT_EXT_MP3ReadSingleFrame(GOLT_frame_t *)
{
    return true;
}
