// Frames as they leave the Matroska demuxer: H.264 as a byte stream with the parameter sets before
// each IDR slice, AC-3 with its sync words, anything else as stored. Private to the demuxer.

#ifndef GOLT_DMX_MKV_FRAME_H
#define GOLT_DMX_MKV_FRAME_H

#include "dmx_mkv_i.h"

namespace mkv {

/// A larger payload is no frame of any stream that a player gets: 64 MiB is more than a second of
/// video at the highest bit rate of H.264 level 5.1.
constexpr uint32_t PAYLOAD_MAX = 64u << 20;

enum class frame_read_t {
    WHOLE,
    CUT,   // the input ended inside of it; what is missing is 0
    NONE,  // no memory, or not one byte came; nothing is held
};

/// Reads one audio frame of ui4_size bytes, at most PAYLOAD_MAX, into a block of its own.
frame_read_t read_audio_frame(uint32_t ui4_size, AudioFrameBuffer &t_buffer);

/// The same for a seek, which wants no audio: the host is asked for the same bytes, and nothing is held.
/// Small frames take no memory, as a block can have 255 of them.
frame_read_t drop_audio_frame(uint32_t ui4_size);

/// Reads the DataLen bytes of a video block, at most PAYLOAD_MAX, as the pending video frame.
frame_read_t read_video_frame(uint32_t DataLen);

}  // namespace mkv

/// Reads the frameLen bytes of the current video block into CurFrameData and turns NAL lengths into
/// start codes; frameLen becomes the length of the result. CurFrameData has frameCapacity bytes.
/// Where these don't suffice, a larger block takes its place, or null without memory for that.
/// False then, and when the input ended.
bool FileFillVideoBuff();

/// Reads one audio frame of len bytes into buff, which has room for 2 more. Returns the bytes
/// placed.
uint32_t FileFillAudioBuff(uint8_t *buff, uint32_t len);

/// Size of an AC-3 frame in bytes (ATSC A/52); 0 for a rate that AC-3 doesn't have, -1 for a code
/// that it doesn't have.
int32_t CheckFrameSize(uint8_t FrameSizeCode, uint32_t SampleRate);

#endif
