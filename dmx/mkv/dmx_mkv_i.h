// The records and the state of the Matroska demuxer, for its own source files only.
//
// Fields named after an element hold what the file says. Texts and UIDs are cut to their field and
// have no terminator when they fill it.

#ifndef GOLT_DMX_MKV_I_H
#define GOLT_DMX_MKV_I_H

#include "golt_common.h"

constexpr uint32_t MKV_CODEC_PRIVATE_MAX = 128;  // bytes kept of a track's CodecPrivate
constexpr uint32_t MKV_PARAMETER_SETS_MAX = 256;
constexpr uint32_t MKV_CUES_MAX = 4096;

// Frames of a laced block. The format allows 256, one more than the counters below can hold.
constexpr uint32_t MKV_LACED_FRAMES_MAX = 255;

// Before each NAL unit of a byte stream (ISO/IEC 14496-10, Annex B).
constexpr uint8_t MKV_START_CODE[] = {0, 0, 0, 1};
constexpr uint32_t MKV_START_CODE_SIZE = sizeof MKV_START_CODE;

// NAL unit types (ISO/IEC 14496-10).
constexpr uint8_t MKV_NAL_TYPE_MASK = 0x1F;
constexpr uint8_t MKV_NAL_IDR_SLICE = 5;
constexpr uint8_t MKV_NAL_SPS = 7;

struct SEGMENT_INFO {
    uint32_t SegFileStartPos;  // of the Segment's payload; SeekHead and Cues count from here
    uint64_t SegmentLen;
    uint8_t AvailAudioFrameNo;  // frames of the block whose audio is pending, 0: none is
    uint8_t AvailVideoFrameNo;  // 1: a video frame is pending
    uint8_t SegmentUID[16];
    uint8_t SegmentFileName[32];
    uint8_t PrevUID[16];
    uint8_t PrevFileName[32];
    uint8_t NextUID[16];
    uint8_t NextFileName[32];
    uint32_t TimeCodeScale;
    uint32_t SeekTrackPos;    // relative to SegFileStartPos
    uint64_t SeekCuePos;      // from the start of the file, 0: not known
    uint64_t AudioTimeStamp;  // the audio clock, nanoseconds
    uint32_t Duration;        // milliseconds
    uint8_t SegmentTitle[32];
    uint8_t SegmentMuxingApp[32];
    uint8_t SegmentWritingApp[32];
    int32_t DateUTC;               // stays 0
    uint8_t Audio_time_initialed;  // AudioTimeStamp has its start value
};

struct SEEK_HEAD_CHILD {
    uint32_t SeekID;
    uint64_t SeekPostion;
};

struct CUE_TRACK_POSITION {
    uint32_t CueTrack;
    uint64_t CueClusterPosition;  // relative to SegFileStartPos
    uint32_t CueBlockNumber;
};

struct CUE_POINT_STRUCT {
    uint32_t CueTime;  // milliseconds
    CUE_TRACK_POSITION CueTrack;
};

struct TRACK_VIDEO {
    uint32_t PixelWidth;
    uint32_t PixelHeight;
    uint32_t PixelCropBottom;
    uint32_t PixelCropTop;
    uint32_t PixelCropLeft;
    uint32_t PixelCropRight;
    uint32_t DisplayWidth;
    uint32_t DisplayHeight;
    uint32_t DisplayUnit;
    uint32_t interlace_flag;
};

struct TRACK_AUDIO {
    uint32_t SamplingFrequency;  // hertz
    uint32_t OutputSamplingFrequency;
    uint32_t Channels;
    uint32_t BitDepth;
};

struct CONTENT_COMPRESSION {
    uint32_t ContentCompAlgo;
    uint8_t ContentCompSetting;
};

struct TRACK_ENCODING {
    uint32_t ContentEncodingOrder;
    uint32_t ContentEncodingScope;
    uint32_t ContentEncodingType;
    CONTENT_COMPRESSION Compression;
};

struct CODEC_PRIVATE {
    uint32_t len;
    uint8_t data[MKV_CODEC_PRIVATE_MAX];
};

// What is put before an IDR slice.
struct PARAMETER_SETS {
    uint32_t len;
    uint8_t data[MKV_PARAMETER_SETS_MAX];
};

struct TRACK_ENTRY {
    uint32_t TrackNumber;
    uint32_t TrackUID;
    uint32_t TrackType;
    uint8_t FlagEnabled;
    uint8_t FlagDefault;
    uint8_t FlagFoeced;
    uint8_t FlagLacing;
    uint32_t MinCache;
    uint32_t MaxCache;
    uint32_t DefaultDuration;  // nanoseconds
    float TrackTimeCodeScale;
    uint8_t TrackName[32];
    uint8_t TrackLanguage[32];
    char TrackCodecID[32];
    uint8_t TrackCodecPrivate;  // stays 0
    uint8_t TrackCodecName[32];
    uint32_t AtachmentLink;
    TRACK_VIDEO video;
    TRACK_AUDIO audio;
    TRACK_ENCODING encoding;
    CODEC_PRIVATE codecPrivate;
};

struct AudioFrameBuffer {
    uint32_t TimeCode;  // not in use: audio has its clock
    uint32_t frameLen;
    uint8_t *frameData;  // from GOLT_allocMem, the demuxer's until it is handed out
};

struct AUDIO_FRAME_INFO {
    uint8_t initialed;
    uint8_t TrackNumber;  // 0: no track was chosen
    uint8_t Channels;
    uint8_t speakerConfig;  // stays 0
    uint32_t sampleRate;    // hertz
    uint32_t CurTimeCode;   // of the current block, milliseconds
    uint32_t TimeDelta;     // nanoseconds per frame
    uint32_t maxLen;        // of the frames so far
    uint8_t codec;          // GOLT_codecs_t
    uint8_t language[16];
    uint8_t curFrameNo;  // next one of AudioData to hand out
    uint8_t totalFrameNo;
    AudioFrameBuffer AudioData[MKV_LACED_FRAMES_MAX];  // frames of the current block
    CODEC_PRIVATE AudioCodecPrivate;
};

struct VIDEO_FRAME_INFO {
    uint8_t IsPicHeaderAdded;  // stays 0
    uint8_t IsSpecialAVC;      // stays 0
    uint8_t initialed;
    uint8_t TrackNumber;  // 0: no track was chosen
    uint8_t codec;        // GOLT_codecs_t
    uint8_t language[16];
    uint32_t width;
    uint32_t height;
    uint32_t frameLen;
    uint32_t CurTimeCode;   // of the pending frame, milliseconds
    uint32_t TimeDelta;     // nanoseconds per frame
    uint32_t maxLen;        // of the frames so far
    uint8_t *CurFrameData;  // from GOLT_allocMem, the demuxer's until it is handed out
    CODEC_PRIVATE VideoCodecPrivate;
    PARAMETER_SETS ParameterSets;  // VideoCodecPrivate in the form of the byte stream
    uint32_t frameCapacity;        // bytes at CurFrameData, of which frameLen are the frame
};

struct CLUSTER_DATA_ANALYZE {
    uint8_t Initialized;  // a Cluster is open: ClusterLenRest counts its payload
    uint8_t buff_valid;   // stays 0
    uint8_t *CurData;     // stays null
    uint8_t *buffStart;   // stays null
    uint32_t ClusterLen;
    uint32_t ClusterLenRest;     // declared bytes not yet walked
    uint32_t CurClusterDataPos;  // stays 0
};

struct CLUSTER_BLOCK_GROUP {
    uint8_t *data;  // stays null
    int32_t ReferenceBlock;
    int32_t BlockDuration;
};

struct CLUSTER {
    uint32_t TimeCode;  // milliseconds, the base of the blocks' times
    uint32_t Position;
    uint32_t PrevSize;
    CLUSTER_BLOCK_GROUP Block;
    uint8_t *SimpleBlock;  // stays null
};

struct MKV_context_t {
    tpf_read MKV_tpf_reader;
    tpf_seek MKV_tpf_seeker;
    void *MKV_file_handle;
    int64_t MKV_file_pos;  // moved by every read and every successful seek
    SEGMENT_INFO SegInfo;
    uint32_t ClusterStartPos;  // of the first Cluster's ID; survives the source
    AUDIO_FRAME_INFO *AudioFrameInfo;
    VIDEO_FRAME_INFO *VideoFrameInfo;
    CLUSTER_DATA_ANALYZE ClusterData;
    CLUSTER ClusterInfo;    // survives the source: a Cluster without Timecode takes the last one
    CUE_POINT_STRUCT *Cue;  // MKV_CUES_MAX entries, of which TotalNumOfCues are filled
    uint32_t TotalNumOfCues;
    uint8_t MKV_Header_ok;
    uint8_t MKV_Initialed;
    // A read fell short, or a block was lost or cut, since the pump was started. Set by _MKV_Read
    // and BlockDataAnalyze, whose results have no room for it.
    bool f_ended;
    bool f_seeking;        // of audio that is pending no frame is held
    uint32_t ui4_damaged;  // element headers in a row that couldn't be read
};

extern MKV_context_t mkvctx;

#endif
