// Matroska demuxer (RFC 9559): one audio track of AC-3, AAC or MP3 and one video track of H.264,
// the first of each that it knows, out of a file with one Segment.
//
// Frames come in the order of the file, one block of it in memory at a time. H.264 comes out as a
// byte stream with the parameter sets before each IDR slice, AC-3 with its sync words, AAC and
// MP3 as stored. Video has the time of its block; audio runs on a clock of its own that steps by
// the track's DefaultDuration. Times are taken as milliseconds, whatever the TimecodeScale.
//
// One source at a time: the module keeps one static context.

#ifndef GOLT_DMX_MKV_H
#define GOLT_DMX_MKV_H

#include "golt_common.h"

/// Attaches to a source, reads its headers and its cues and moves to the first Cluster. False only
/// without memory, with nothing held; a source that isn't Matroska has no streams and no frames. A
/// source that is still attached is given up.
GOLT_EXPORT bool GOLT_DMX_MKVInit(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle);

/// Releases what is held, frames that weren't read yet included, and gives up the source. Always
/// true.
GOLT_EXPORT bool GOLT_DMX_MKVDestroy();

/// Reads the next frame. False, with pt_frame unchanged, at the end of the stream (of the input, or
/// of the row of Clusters) and when there is no memory for the next block, which is then lost. A
/// frame that the end of the input cuts is filled with zeros, up to its size or to 16 MiB.
GOLT_EXPORT bool GOLT_DMX_MKVReadFrame(GOLT_frame_t *pt_frame);

/// No effect, always true.
GOLT_EXPORT bool GOLT_DMX_MKVSeekToBytes(int64_t i8_pos);

/// Moves to the last cue point at or before ui8_time milliseconds; a time before the first cue point
/// moves to that one, which is later. From there it moves to the first video frame that is a key
/// frame by its first NAL unit, or that isn't before ui8_time. Audio is read and dropped. False, with
/// nothing changed, for a source without cues and for a time at or after the last cue point; false
/// at the end of the stream when no such frame comes, and after eight frames that the source has cut
/// short.
GOLT_EXPORT bool GOLT_DMX_MKVSeekToTime(uint64_t ui8_time);

/// Describes the chosen tracks, in every field; a stream that wasn't found has
/// GOLT_CODEC_UNKNOWN. False without a source or a record.
GOLT_EXPORT bool GOLT_DMX_MKVGetStreamInfo(GOLT_streamInfo_t *sinfo);

#endif
