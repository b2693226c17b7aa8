// Containers, codecs and handles of the host's media interfaces.

#ifndef PELA_TYPES_H
#define PELA_TYPES_H

#include <cstdint>

namespace PELA {

/// Bit mask of container kinds.
enum Containers {
    CONTAINER_TS = 1,
    CONTAINER_PS = 2,
    CONTAINER_VOB = 4,
    CONTAINER_MP4 = 8,
    CONTAINER_MKV = 16,
    CONTAINER_MP3 = 32
};

enum VideoCodecs { VIDEO_CODEC_UNKNOWN = 0, VIDEO_CODEC_H264 = 1, VIDEO_CODEC_MPEG2 = 2 };

/// DD and DDP are AC-3 and Enhanced AC-3.
enum AudioCodecs {
    AUDIO_CODEC_UNKNOWN = 0,
    AUDIO_CODEC_DDP = 1,
    AUDIO_CODEC_AAC = 2,
    AUDIO_CODEC_MP3 = 4,
    AUDIO_CODEC_DD = 8
};

class RemuxerDriver;
class AVDemuxer;
class AVMuxer;
class AVFrame;  ///< opaque: the host stores a frame's handle and hands it back
class BufferStream;

typedef RemuxerDriver *IRemuxerDriver;
typedef AVDemuxer *IAVDemuxer;
typedef AVMuxer *IAVMuxer;
typedef AVFrame *IAVFrame;
typedef BufferStream *IBufferStream;

}  // namespace PELA

#endif
