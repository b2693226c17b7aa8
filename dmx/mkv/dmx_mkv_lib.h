// The parsers of the Matroska demuxer: the reader of EBML elements (RFC 8794), the header scan and
// the pump that turns blocks into frames. They work on the demuxer's context and read through its
// callbacks, a few bytes at a time and in the order of the file.
//
// An element's header is told as Len and cur_used. Len[0] and Len[1] are the upper and the lower
// half of its size; only the Segment may have an upper half, the parsers work with Len[1] alone.
// cur_used is the length of the header itself. EBML's size of all ones is no special value.

#ifndef GOLT_DMX_MKV_LIB_H
#define GOLT_DMX_MKV_LIB_H

#include "dmx_mkv_i.h"

// EBML reader. Bytes that the input doesn't have are read as 0.

/// 0, or the callback's failure; the position is known to be pos only after a success.
int64_t _MKV_Seek(int64_t pos);

/// Bytes from the start of the file.
int64_t _MKV_FilePos();

/// One call of the read callback; returns the number of bytes that came.
uint32_t _MKV_Read(void *buf, int nbytes);

/// As _MKV_Read, without a call for 0 bytes.
uint32_t _GetBytes(void *buf, int nbytes);

/// Reads one element's header and returns its ID with the marker. 0, with Len and cur_used
/// unchanged, for a header that can't be read or is cut by the end of the input.
int32_t FileCheckEBML(uint32_t *Len, uint32_t *cur_used);

/// Accepts every EBML header. Always 1.
int32_t EMBL_Check_Head(uint32_t *Len, uint32_t cur_used);

/// The next len bytes, 1 to 8, as a number; 0, with nothing consumed, for another len.
uint64_t FileGetEBMLData(uint32_t len);

/// The same from memory.
uint64_t getEBMLData64(const uint8_t *data, uint32_t len);

/// Reads a variable-length integer, cut to 32 bits. Returns its width, 0 when it can't be read.
uint32_t FileGetVint(uint32_t *res);

/// The same for the signed form that EBML lacing uses.
uint32_t FileGetSVint(int32_t *res);

/// The next DataBytes bytes, 1 to 4, in two's complement; 0, with nothing consumed, for another
/// DataBytes.
int32_t FileGetSint(uint32_t DataBytes);

/// The same, unsigned.
uint32_t FileGetUint(uint32_t DataBytes);

/// Copies up to MaxLen of the len bytes at src and fills dst up to MaxLen with 0. Always 1.
uint32_t CopyEBML_Buff(const uint8_t *src, uint8_t *dst, uint32_t len, uint32_t MaxLen);

/// The same from the file; the len bytes are consumed in any case. Always 1.
uint32_t FileCopyEBML_Buff(uint8_t *dst, uint32_t len, uint32_t MaxLen);

/// Reads a floating-point element of Len bytes, 4 or 8; another Len is consumed and gives 0. So do
/// magnitudes below 1 and from 2^32 on: frequencies and durations don't come that small or large.
float FileGetFloat(uint32_t Len);

// Header scan

/// Reads the headers from the current position, up to the first Cluster and the cues. 1, or 0 when
/// the input ended before either. The position is left anywhere.
int32_t EMBL_Header_Analyze();

// Parsers of one master element, whose header has just been read. Always 1.
int32_t FileEMBL_Check_SeekHead(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_SegmentInfo(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_Cue(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_TRACK(uint32_t *Len, uint32_t used);
int32_t FileEMBL_Check_Video(uint32_t *Len, uint32_t used, TRACK_VIDEO *video);
int32_t FileEMBL_Check_Audio(uint32_t *Len, uint32_t used, TRACK_AUDIO *audio);
int32_t FileEMBL_Check_Encoding(uint32_t *Len, uint32_t used, TRACK_ENCODING *encoding);

// Clusters and blocks

/// Reads on until a frame is pending: 1. 0 when the stream has ended.
uint32_t AV_buffer_fill();

/// Walks the open Cluster up to its next block and reads that. Always 1.
uint32_t EMBL_Check_Cluster_frame();

/// Reads the block of BlockLen bytes at the current position, or skips it when it is of another
/// track. 1, or 0 when its track number can't be read.
int32_t BlockDataAnalyze(uint32_t BlockLen);

/// Reads the frameLen bytes of the current video block into CurFrameData and turns NAL lengths into
/// start codes; frameLen becomes the length of the result. CurFrameData has room for the bytes, or
/// for 16 MiB of them where there are more, and for 2048 beyond. When so much has come, a larger
/// block takes its place, or null without memory for that.
void FileFillVideoBuff();

/// Reads one audio frame of len bytes into buff, which has room for 2 more. Returns the bytes
/// placed.
uint32_t FileFillAudioBuff(uint8_t *buff, uint32_t len);

/// Size of an AC-3 frame in bytes (ATSC A/52); 0 for a rate that AC-3 doesn't have, -1 for a code
/// that it doesn't have.
int32_t CheckFrameSize(uint8_t FrameSizeCode, uint32_t SampleRate);

#endif
