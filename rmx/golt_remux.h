// What a remuxer reports of its output.

#ifndef GOLT_REMUX_H
#define GOLT_REMUX_H

#include <cstdint>

/// PIDs of the elementary streams.
struct GOLT_remuxInfo_t {
    uint32_t audioPid;  ///< of the audio stream, 0x101
    uint32_t videoPid;  ///< of the video stream, 0x100
};

#endif
