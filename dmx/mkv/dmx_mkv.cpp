#include "dmx_mkv.h"

#include <new>

#include "dmx_mkv_i.h"
#include "dmx_mkv_lib.h"
#include "golt_mem.h"

namespace {

constexpr uint64_t NS_PER_MS = 1000000;

// Frames that a host may cut before a seek gives up: the missing bytes of them are filled in, and their
// sizes are only what the file says.
constexpr uint32_t CUT_FRAMES_MAX = 8;

bool allocate();
void release();
void serve_audio(GOLT_frame_t *pt_frame);
void serve_video(GOLT_frame_t *pt_frame);
const CUE_POINT_STRUCT *find_cue(uint32_t ui4_time);
bool read_on_to(uint32_t ui4_time);
void drop_audio();
void drop_video();
bool begins_with_key_frame(const VIDEO_FRAME_INFO &t_video);

}  // namespace

MKV_context_t mkvctx;

GOLT_EXPORT bool GOLT_DMX_MKVInit(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle)
{
    GOLT_DMX_MKVDestroy();
    if (!allocate()) {
        release();
        return false;
    }
    mkvctx.MKV_tpf_reader = pf_read;
    mkvctx.MKV_tpf_seeker = pf_seek;
    mkvctx.MKV_file_handle = pv_handle;

    _MKV_Seek(0);
    mkvctx.MKV_Header_ok = static_cast<uint8_t>(EMBL_Header_Analyze());
    _MKV_Seek(mkvctx.ClusterStartPos);
    mkvctx.ClusterData.Initialized = 0;
    mkvctx.MKV_Initialed = 1;
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MKVDestroy()
{
    if (mkvctx.MKV_Initialed == 0) return true;
    drop_audio();
    drop_video();
    release();
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MKVReadFrame(GOLT_frame_t *pt_frame)
{
    if (mkvctx.MKV_Initialed == 0 || mkvctx.MKV_Header_ok == 0) return false;
    if (AV_buffer_fill() == 0) return false;
    if (mkvctx.SegInfo.AvailAudioFrameNo != 0)
        serve_audio(pt_frame);
    else
        serve_video(pt_frame);
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MKVSeekToBytes(int64_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MKVSeekToTime(uint64_t ui8_time)
{
    if (mkvctx.MKV_Initialed == 0) return false;
    const auto ui4_time = static_cast<uint32_t>(ui8_time);
    const CUE_POINT_STRUCT *pt_cue = find_cue(ui4_time);
    if (pt_cue == nullptr) return false;

    // Frames that are pending from an earlier seek or a laced block belong to the old position.
    drop_audio();
    drop_video();
    _MKV_Seek(
        static_cast<int64_t>(mkvctx.SegInfo.SegFileStartPos + pt_cue->CueTrack.CueClusterPosition));
    mkvctx.SegInfo.Audio_time_initialed = 0;
    mkvctx.ClusterData.Initialized = 0;

    mkvctx.f_seeking = true;
    const bool f_found = read_on_to(ui4_time);
    mkvctx.f_seeking = false;
    return f_found;
}

GOLT_EXPORT bool GOLT_DMX_MKVGetStreamInfo(GOLT_streamInfo_t *sinfo)
{
    if (sinfo == nullptr || mkvctx.MKV_Initialed == 0) return false;
    const AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    const VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    *sinfo = {};
    sinfo->audioCodec = static_cast<GOLT_codecs_t>(t_audio.codec);
    sinfo->videoCodec = static_cast<GOLT_codecs_t>(t_video.codec);
    sinfo->duration = mkvctx.SegInfo.Duration;
    sinfo->aud_numChannels = t_audio.Channels;
    sinfo->aud_sampleRate = t_audio.sampleRate;
    sinfo->vid_arInfo = GOLT_AR_ENCODED;
    sinfo->vid_width = t_video.width;
    sinfo->vid_height = t_video.height;
    sinfo->vid_dimensionality = GOLT_DIM_2D;
    return true;
}

namespace {

bool allocate()
{
    mkvctx.AudioFrameInfo = new (std::nothrow) AUDIO_FRAME_INFO{};
    mkvctx.VideoFrameInfo = new (std::nothrow) VIDEO_FRAME_INFO{};
    mkvctx.Cue = new (std::nothrow) CUE_POINT_STRUCT[MKV_CUES_MAX];
    return mkvctx.AudioFrameInfo != nullptr && mkvctx.VideoFrameInfo != nullptr &&
           mkvctx.Cue != nullptr;
}

// Leaves a fresh context, with only what survives the source.
void release()
{
    delete mkvctx.AudioFrameInfo;
    delete mkvctx.VideoFrameInfo;
    delete[] mkvctx.Cue;
    MKV_context_t t_fresh = {};
    t_fresh.ClusterStartPos = mkvctx.ClusterStartPos;
    t_fresh.ClusterInfo = mkvctx.ClusterInfo;
    mkvctx = t_fresh;
}

void serve_audio(GOLT_frame_t *pt_frame)
{
    SEGMENT_INFO &t_segment = mkvctx.SegInfo;
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    if (t_segment.Audio_time_initialed == 0) {
        t_segment.Audio_time_initialed = 1;
        t_segment.AudioTimeStamp = t_audio.CurTimeCode * NS_PER_MS;
    }
    const AudioFrameBuffer &t_buffer = t_audio.AudioData[t_audio.curFrameNo];
    pt_frame->ui4_frametype = GOLT_FT_AUDIO;
    pt_frame->pb_data = t_buffer.frameData;
    pt_frame->ui4_size = t_buffer.frameLen;
    pt_frame->ui8_timestamp = t_segment.AudioTimeStamp / NS_PER_MS;
    t_segment.AudioTimeStamp += t_audio.TimeDelta;

    ++t_audio.curFrameNo;
    if (t_audio.curFrameNo < t_audio.totalFrameNo) return;
    t_segment.AvailAudioFrameNo = 0;
    t_audio.curFrameNo = 0;
}

void serve_video(GOLT_frame_t *pt_frame)
{
    const VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    pt_frame->ui4_frametype = GOLT_FT_VIDEO;
    pt_frame->pb_data = t_video.CurFrameData;
    pt_frame->ui4_size = t_video.frameLen;
    pt_frame->ui8_timestamp = t_video.CurTimeCode;
    mkvctx.SegInfo.AvailVideoFrameNo = 0;
}

// The entry before the first one that is later than ui4_time. Null when none is later: the time may
// then lie past the end of the file. The table is taken as it is; one out of order only makes the
// seek start at another Cluster.
const CUE_POINT_STRUCT *find_cue(uint32_t ui4_time)
{
    const CUE_POINT_STRUCT *pt_cues = mkvctx.Cue;
    if (mkvctx.TotalNumOfCues == 0) return nullptr;
    if (ui4_time < pt_cues[0].CueTime) return pt_cues;
    for (uint32_t i = 1; i < mkvctx.TotalNumOfCues; ++i) {
        if (pt_cues[i].CueTime > ui4_time) return pt_cues + i - 1;
    }
    return nullptr;
}

// Leaves the first frame pending at which the stream can start again. False when none comes.
bool read_on_to(uint32_t ui4_time)
{
    const VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    uint32_t cut = 0;
    while (cut < CUT_FRAMES_MAX && AV_buffer_fill() != 0) {
        const bool f_video = mkvctx.SegInfo.AvailVideoFrameNo != 0;
        if (f_video && (begins_with_key_frame(t_video) || ui4_time <= t_video.CurTimeCode))
            return true;
        if (mkvctx.f_ended) ++cut;
        drop_audio();
        drop_video();
    }
    return false;
}

void drop_audio()
{
    if (mkvctx.SegInfo.AvailAudioFrameNo == 0) return;
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    for (uint32_t i = t_audio.curFrameNo; i < t_audio.totalFrameNo; ++i)
        GOLT_freeMem(t_audio.AudioData[i].frameData);
    mkvctx.SegInfo.AvailAudioFrameNo = 0;
    t_audio.curFrameNo = 0;
}

void drop_video()
{
    if (mkvctx.SegInfo.AvailVideoFrameNo == 0) return;
    GOLT_freeMem(mkvctx.VideoFrameInfo->CurFrameData);
    mkvctx.SegInfo.AvailVideoFrameNo = 0;
}

bool begins_with_key_frame(const VIDEO_FRAME_INFO &t_video)
{
    if (t_video.frameLen <= MKV_START_CODE_SIZE) return false;
    const uint8_t ui1_type = t_video.CurFrameData[MKV_START_CODE_SIZE] & MKV_NAL_TYPE_MASK;
    return ui1_type == MKV_NAL_IDR_SLICE || ui1_type == MKV_NAL_SPS;
}

}  // namespace
