// MP3 demuxer: a plain MPEG audio file (ISO/IEC 11172-3, Layers I to III), with or without an ID3v2
// tag at its start, as one frame for each audio frame.
//
// The file has neither an index nor a duration. The demuxer walks from header to header; the time
// of a frame is its number times the duration of a frame, from 0 at the first one. While it reads,
// it learns where each time lies in the file, and seeks by that. Where a seek has to estimate, the
// frames have the requested time, and their clock is corrected as soon as the reader reaches a place
// that it knows.
//
// One source at a time: the module's state is static.

#ifndef GOLT_DMX_MP3_H
#define GOLT_DMX_MP3_H

#include "golt_common.h"

/// Attaches to a source, passes over an ID3v2 tag and looks at the first frame. True even when
/// there is no frame: such a source has no stream info and delivers nothing. A source that is still
/// attached is given up. False, with nothing changed, only without callbacks.
GOLT_EXPORT bool GOLT_DMX_MP3Init(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle);

/// Releases the tables and gives up the source. Always true.
GOLT_EXPORT bool GOLT_DMX_MP3Destroy();

/// Reads the next frame with its header, unchanged; bytes that are cut off by the end of the file
/// are zero. False, with pt_frame unchanged, at the end of the file, where the next header is
/// missing, and without memory: the next call then tries the same frame again.
GOLT_EXPORT bool GOLT_DMX_MP3ReadFrame(GOLT_frame_t *pt_frame);

/// Always false, without effect: this format is sought by time only.
GOLT_EXPORT bool GOLT_DMX_MP3SeekToBytes(int64_t i8_pos);

/// Moves to ui8_time milliseconds, of which the low 32 bits count. False only when the reader is
/// there already; true also past the end, where the next read is false.
GOLT_EXPORT bool GOLT_DMX_MP3SeekToTime(uint64_t ui8_time);

/// Describes the first frame. False, with sinfo unchanged, when none was found.
GOLT_EXPORT bool GOLT_DMX_MP3GetStreamInfo(GOLT_streamInfo_t *sinfo);

#endif
