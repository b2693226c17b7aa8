// Tracks and the choice among them. Private to the Matroska demuxer.

#ifndef GOLT_DMX_MKV_TRACKS_H
#define GOLT_DMX_MKV_TRACKS_H

#include "dmx_mkv_i.h"

// Parsers of one master element, whose header has just been read. Always 1.

/// Reads all tracks and fills in AudioFrameInfo and VideoFrameInfo for those that are chosen.
int32_t FileEMBL_Check_TRACK(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_Video(uint32_t *Len, uint32_t used, TRACK_VIDEO *video);
int32_t FileEMBL_Check_Audio(uint32_t *Len, uint32_t used, TRACK_AUDIO *audio);
int32_t FileEMBL_Check_Encoding(uint32_t *Len, uint32_t used, TRACK_ENCODING *encoding);

#endif
