// The parsers of the Matroska demuxer (RFC 9559), as its entry points use them. Private to the
// demuxer, like the headers of the parts:
//
//   dmx_mkv_ebml     reads elements and their values, and walks over children
//   dmx_mkv_segment  the scan of the headers: SeekHead, Info, Cues
//   dmx_mkv_tracks   Tracks, and the choice of one audio and one video track
//   dmx_mkv_cluster  the pump: Clusters and blocks, one block at a time
//   dmx_mkv_lacing   sizes of the frames in a block
//   dmx_mkv_frame    frames as they leave the demuxer
//
// All work on the demuxer's context and read through its callbacks.

#ifndef GOLT_DMX_MKV_LIB_H
#define GOLT_DMX_MKV_LIB_H

#include <cstdint>

/// 0, or the callback's failure; the position is known to be pos only after a success.
int64_t _MKV_Seek(int64_t pos);

/// Reads the headers from the current position, up to the first Cluster and the cues. 1, or 0 when
/// the input ended before either. The position is left anywhere.
int32_t EMBL_Header_Analyze();

/// Reads on until a frame is pending: 1. 0 when the stream has ended.
uint32_t AV_buffer_fill();

#endif
