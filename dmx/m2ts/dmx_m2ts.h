// M2TS demuxer: a transport stream whose packets are stored after a four-byte stamp each, 192
// bytes a record. Each frame is one 188-byte packet (ISO/IEC 13818-1), handed on unchanged.
//
// One source at a time: the module's state is static.

#ifndef GOLT_DMX_M2TS_H
#define GOLT_DMX_M2TS_H

#include "golt_common.h"

/// Attaches to a source and finds the first sync byte; the two after it, at distances of 192 bytes,
/// confirm it. False, with nothing held, when the source isn't such a stream. The source has to
/// be at its start. A source that is still attached is given up.
GOLT_EXPORT bool GOLT_DMX_M2TSInit(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle);

/// Gives up the source. Always true.
GOLT_EXPORT bool GOLT_DMX_M2TSDestroy();

/// Reads the next packet. False at the end of the source and where the sync byte is missing;
/// pt_frame then owns no block.
GOLT_EXPORT bool GOLT_DMX_M2TSReadFrame(GOLT_frame_t *pt_frame);

/// No effect: always true, and the next frame is the one that would have come anyway.
GOLT_EXPORT bool GOLT_DMX_M2TSSeekToBytes(int64_t i8_pos);

/// No effect, like GOLT_DMX_M2TSSeekToBytes.
GOLT_EXPORT bool GOLT_DMX_M2TSSeekToTime(uint64_t ui8_time);

/// Always true; nothing is known of the streams inside, so that nothing is written.
GOLT_EXPORT bool GOLT_DMX_M2TSGetStreamInfo(GOLT_streamInfo_t *sinfo);

#endif
