// The segment's header: SeekHead, Info and Cues. Private to the Matroska demuxer.

#ifndef GOLT_DMX_MKV_SEGMENT_H
#define GOLT_DMX_MKV_SEGMENT_H

#include "dmx_mkv_i.h"

// Parsers of one master element, whose header has just been read. Always 1.
int32_t FileEMBL_Check_SeekHead(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_SegmentInfo(uint32_t *Len, uint32_t used);

/// Fills the cue table anew.
int32_t FileEMBL_Check_Cue(uint32_t *Len, uint32_t used);

#endif
