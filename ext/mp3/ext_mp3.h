// Extractor of single frames from a block of MPEG audio elementary stream bytes.
//
// A place reserved in the binary interface: nothing is extracted yet, and every function just
// reports success.

#ifndef GOLT_EXT_MP3_H
#define GOLT_EXT_MP3_H

#include "golt_common.h"

/// Takes the ui4_size bytes at pb_data, which stay the caller's. Always true.
GOLT_EXPORT bool GOLT_EXT_MP3Start(uint8_t *pb_data, uint32_t ui4_size);

/// Forgets what Start was given. Always true.
GOLT_EXPORT bool GOLT_EXT_MP3Reset();

/// Always true; pt_frame is left unchanged.
GOLT_EXPORT bool GOLT_EXT_MP3ReadSingleFrame(GOLT_frame_t *pt_frame);

#endif
