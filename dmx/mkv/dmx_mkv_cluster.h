// Clusters and blocks: the steps of the pump AV_buffer_fill. Private to the Matroska demuxer.

#ifndef GOLT_DMX_MKV_CLUSTER_H
#define GOLT_DMX_MKV_CLUSTER_H

#include "dmx_mkv_i.h"

/// Walks the open Cluster up to its next block and reads that. Always 1.
uint32_t EMBL_Check_Cluster_frame();

/// Reads the block of BlockLen bytes at the current position, or skips it when it is of another
/// track. 1, or 0 when its track number can't be read.
int32_t BlockDataAnalyze(uint32_t BlockLen);

#endif
