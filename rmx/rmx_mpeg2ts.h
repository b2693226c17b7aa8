// MPEG-2 transport stream remuxer (ISO/IEC 13818-1): one program with at most one video stream, on
// PID 0x100, and one audio stream, on PID 0x101.
//
// Each frame is written at once, as one PES packet; PAT and PMT go out before the first packet and
// after every 41 further ones. PTS and PCR are the frame's time in milliseconds x 90. Nothing is
// queued, allocated or reordered, and the sink's result is ignored.
//
// The bytes of a frame have to be: for H.264 an access unit as a byte stream with start codes, for
// AAC a raw frame (the remuxer adds the ADTS header), for MP3, AC-3 and E-AC-3 one frame with its
// own header.
//
// One output at a time: the module keeps one static context. Order of calls: GOLT_RMX_init,
// GOLT_RMX_setStreamInfo, then any of the others.

#ifndef GOLT_RMX_MPEG2TS_H
#define GOLT_RMX_MPEG2TS_H

#include "golt_common.h"
#include "golt_remux.h"

/// Starts an output with new counters. pf_write gets each 188-byte packet, with pv_handle; both
/// have to stay valid while frames are written. fApplyFilters: no effect, there are no filters.
/// Always true.
GOLT_EXPORT bool GOLT_RMX_init(tpf_write pf_write, void *pv_handle, bool fApplyFilters);

/// Copies the description of the source, from which stream types and the PCR's PID follow. Always
/// true.
GOLT_EXPORT bool GOLT_RMX_setStreamInfo(GOLT_streamInfo_t *pt_sinfo);

/// Always true: there is nothing to release.
GOLT_EXPORT bool GOLT_RMX_destroy();

/// Stores the frame's time in ticks of 90 kHz, cut to 32 bits. Always true.
GOLT_EXPORT bool GOLT_RMX_getPTS(GOLT_frame_t *pt_frame, uint32_t *pt_pts);

/// Always true: a transport stream has no file header, and the first frame brings PAT and PMT.
GOLT_EXPORT bool GOLT_RMX_writeHeader();

/// Always true: a transport stream simply stops.
GOLT_EXPORT bool GOLT_RMX_writeTrailer();

/// Always true; the frame stays as it is.
GOLT_EXPORT bool GOLT_RMX_convertFrame(GOLT_frame_t *pt_frame, bool b_adjust_pts);

/// Stores the PIDs of the output. Always true.
GOLT_EXPORT bool GOLT_RMX_getRemuxInfo(GOLT_remuxInfo_t *pt_rinfo);

/// Writes one frame; one of GOLT_FT_MPEG2TS goes to the sink as it is. False, with nothing
/// written, for a frame type that isn't known.
GOLT_EXPORT bool GOLT_RMX_writeFrame(GOLT_frame_t *pt_frame);

#endif
