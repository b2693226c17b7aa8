// MP4 demuxer: one video track of H.264 and one audio track of AAC, MP3, AC-3 or E-AC-3 out of an
// ISO base media file (ISO/IEC 14496-12, -14 and -15).
//
// All parsing is done at start; after that the source is touched only to read samples. Frames come
// in time order from both tracks. H.264 comes out as a byte stream with start codes, with the
// parameter sets before the first frame. Only the first 4 GiB of a file can be reached;
// fragments and edit lists are ignored.
//
// One source at a time: the module keeps one static context.

#ifndef GOLT_DMX_MP4_H
#define GOLT_DMX_MP4_H

#include "golt_common.h"

/// Attaches to a source and parses its "moov" box. True when the file starts with "ftyp" and has a
/// "moov", even without a usable track: such a source delivers no frames. False
/// with nothing held. A source that is still attached is given up.
GOLT_EXPORT bool GOLT_DMX_MP4Init(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle);

/// Releases all tables and gives up the source. Always true.
GOLT_EXPORT bool GOLT_DMX_MP4Destroy();

/// Reads the next sample in time order. False at the end of both tracks, without memory, and when
/// the sample can't be read: the next call then tries the same sample again. pt_frame may own a
/// block in any case, of ui4_size bytes: for a sample that couldn't be read, the bytes that have
/// come, followed by zeros.
GOLT_EXPORT bool GOLT_DMX_MP4ReadFrame(GOLT_frame_t *pt_frame);

/// No effect, always true.
GOLT_EXPORT bool GOLT_DMX_MP4SeekToBytes(int64_t i8_pos);

/// Moves to ui8_time milliseconds: the video track to its first sync sample at or after that time,
/// the audio track to where the video landed. Always true; past the end the next read is false.
GOLT_EXPORT bool GOLT_DMX_MP4SeekToTime(uint64_t ui8_time);

/// Describes the tracks. Fields of a track that isn't there keep their values. Always true.
GOLT_EXPORT bool GOLT_DMX_MP4GetStreamInfo(GOLT_streamInfo_t *sinfo);

#endif
