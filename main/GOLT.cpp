#include "GOLT.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "build_time.h"
#include "dmx_m2ts.h"
#include "dmx_mkv.h"
#include "dmx_mp3.h"
#include "dmx_mp4.h"
#include "golt_mem.h"
#include "rmx_mpeg2ts.h"
#include "tcounter.h"

using namespace PELA;

namespace {

const char *const g_GOLT_String = "Halvern GOLT lib v0.8";
GOLT *g_GOLT_Driver = nullptr;

// The muxer made last, which alone may write: the remuxer's context leads to its Listener. Null
// when that muxer is gone, and its Listener perhaps with it.
GOLT_RMX *g_GOLT_Muxer = nullptr;

// Not used by the library: for measuring how long frames take to be read and written.
timecounter g_tcRdFrame("rdframe", 500);
timecounter g_tcWrFrame("wrframe", 500);

GOLT_frame_t *frame_behind(IAVFrame frame)
{
    return reinterpret_cast<GOLT_frame_t *>(frame);
}

}  // namespace

GOLT_DMX_handler_t GOLT::g_dmx_handlers[] = {
    {"m2ts\0video/ts\0", GOLT_DMX_M2TSInit, GOLT_DMX_M2TSDestroy, GOLT_DMX_M2TSReadFrame,
     GOLT_DMX_M2TSSeekToBytes, GOLT_DMX_M2TSSeekToTime, GOLT_DMX_M2TSGetStreamInfo},
    {"mp3\0audio/mpeg\0", GOLT_DMX_MP3Init, GOLT_DMX_MP3Destroy, GOLT_DMX_MP3ReadFrame,
     GOLT_DMX_MP3SeekToBytes, GOLT_DMX_MP3SeekToTime, GOLT_DMX_MP3GetStreamInfo},
    {"mp4\0m4a\0m4v\0mov\0003gp\0video/mp4\0audio/mp4\0", GOLT_DMX_MP4Init, GOLT_DMX_MP4Destroy,
     GOLT_DMX_MP4ReadFrame, GOLT_DMX_MP4SeekToBytes, GOLT_DMX_MP4SeekToTime,
     GOLT_DMX_MP4GetStreamInfo},
    {"mkv\0mka\0mk3d\0audio/x-matroska\0video/x-matroska\0video/x-matroska-3d\0", GOLT_DMX_MKVInit,
     GOLT_DMX_MKVDestroy, GOLT_DMX_MKVReadFrame, GOLT_DMX_MKVSeekToBytes, GOLT_DMX_MKVSeekToTime,
     GOLT_DMX_MKVGetStreamInfo},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

GOLT_EXPORT IRemuxerDriver GOLT_CreateRemuxerDriver()
{
    printf("GOLT: %s, %s\n", g_GOLT_String, g_GOLT_buildString);
    GOLT_DestroyRemuxerDriver();
    g_GOLT_Driver = new (std::nothrow) GOLT;
    return g_GOLT_Driver;
}

GOLT_EXPORT void GOLT_DestroyRemuxerDriver()
{
    delete g_GOLT_Driver;
    g_GOLT_Driver = nullptr;
}

GOLT_EXPORT const char *GOLT_version()
{
    return g_GOLT_String;
}

// GOLT

GOLT::GOLT()
{
    GOLT_memInit();
}

GOLT::~GOLT()
{
    GOLT_memClose();
}

IAVFrame GOLT::createNewFrame()
{
    uint8_t *pb_record = GOLT_allocMem(sizeof(GOLT_frame_t));
    if (pb_record == nullptr) {
        puts("GOLT: ****** COULD NOT ALLOC FRAME");
        return nullptr;
    }
    return reinterpret_cast<IAVFrame>(new (pb_record) GOLT_frame_t{});
}

void GOLT::destroyFrame(IAVFrame frame)
{
    GOLT_frame_t *pt_frame = frame_behind(frame);
    GOLT_freeMem(pt_frame->pb_data);
    GOLT_freeMem(reinterpret_cast<uint8_t *>(pt_frame));
}

IAVDemuxer GOLT::createDemuxer(const char *format, AVDemuxer::Listener *listener, int64_t fileSize)
{
    if (format == nullptr || listener == nullptr) return nullptr;
    for (GOLT_DMX_handler_t *row = g_dmx_handlers; row->format != nullptr; ++row) {
        for (const char *name = row->format; *name != '\0'; name += strlen(name) + 1) {
            if (strcmp(name, format) == 0)
                return new (std::nothrow) GOLT_DMX(row, listener, fileSize);
        }
    }
    return nullptr;
}

void GOLT::destroyDemuxer(IAVDemuxer demux)
{
    delete demux;
}

IAVMuxer GOLT::createMuxer(Containers container, IAVDemuxer demux, AVMuxer::Listener *listener,
                           bool fApplyFilters)
{
    if (container != CONTAINER_TS || demux == nullptr) return nullptr;
    auto *dmx = static_cast<GOLT_DMX *>(demux);
    if (!dmx->hasCookie()) return nullptr;
    // All zero: a demuxer writes only what it knows.
    GOLT_streamInfo_t sinfo = {};
    if (!dmx->getStreamInfo(&sinfo)) return nullptr;
    return new (std::nothrow) GOLT_RMX(listener, fApplyFilters, sinfo);
}

void GOLT::destroyMuxer(IAVMuxer remux)
{
    delete remux;
}

// GOLT_DMX

GOLT_DMX::GOLT_DMX(GOLT_DMX_handler_t *handler, Listener *listener, int64_t fileSize)
    : m_cookie(COOKIE)
    , m_handler(handler)
    , m_listenerCache(new (std::nothrow) TCache(listener, static_cast<uint64_t>(fileSize)))
{
    if (m_handler->init(readProc, seekProc, m_listenerCache)) return;
    m_handler = nullptr;
    m_cookie = 0;
}

GOLT_DMX::~GOLT_DMX()
{
    if (m_handler != nullptr) m_handler->destroy();
    delete m_listenerCache;
}

bool GOLT_DMX::isValid() const
{
    return m_handler != nullptr;
}

bool GOLT_DMX::readFrame(IAVFrame frame)
{
    return frame != nullptr && m_handler != nullptr && m_handler->readFrame(frame_behind(frame));
}

bool GOLT_DMX::seekToBytes(uint64_t pos)
{
    return m_handler != nullptr && m_handler->seekToBytes(static_cast<int64_t>(pos));
}

bool GOLT_DMX::seekToTime(uint32_t time)
{
    return m_handler != nullptr && m_handler->seekToTime(time);
}

bool GOLT_DMX::getStreamInfo(GOLT_streamInfo_t *pt_sinfo)
{
    return pt_sinfo != nullptr && m_handler != nullptr && m_handler->getStreamInfo(pt_sinfo);
}

uint32_t GOLT_DMX::readProc(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size)
{
    if (pv_handle == nullptr) return 0;
    return static_cast<uint32_t>(
        static_cast<TCache *>(pv_handle)->read(pb_data, static_cast<int>(ui4_size)));
}

int32_t GOLT_DMX::seekProc(void *pv_handle, int64_t i8_offset)
{
    if (pv_handle == nullptr) return -1;
    return static_cast<int32_t>(static_cast<TCache *>(pv_handle)->seek(i8_offset));
}

// GOLT_RMX

GOLT_RMX::GOLT_RMX(Listener *listener, bool fApplyFilters, const GOLT_streamInfo_t &sinfo)
    : m_sinfo(sinfo)
    , m_fValid(GOLT_RMX_init(writerProc, listener, fApplyFilters))
    , m_framesWritten(0)
    , m_framesWrittenLast(0)
{
    if (m_fValid) GOLT_RMX_setStreamInfo(&m_sinfo);
    g_GOLT_Muxer = this;
}

GOLT_RMX::~GOLT_RMX()
{
    GOLT_RMX_destroy();
    if (g_GOLT_Muxer == this) g_GOLT_Muxer = nullptr;
}

bool GOLT_RMX::isValid() const
{
    return m_fValid;
}

bool GOLT_RMX::getPts(IAVFrame fr, uint32_t &pts) const
{
    return m_fValid && fr != nullptr && GOLT_RMX_getPTS(frame_behind(fr), &pts);
}

bool GOLT_RMX::writeHeader()
{
    return m_fValid && GOLT_RMX_writeHeader();
}

bool GOLT_RMX::writeTrailer()
{
    return m_fValid && GOLT_RMX_writeTrailer();
}

bool GOLT_RMX::convertFrame(IAVFrame frame, bool fAdjustPts)
{
    return m_fValid && frame != nullptr && GOLT_RMX_convertFrame(frame_behind(frame), fAdjustPts);
}

bool GOLT_RMX::writeFrame(IAVFrame frame)
{
    if (!m_fValid || frame == nullptr || g_GOLT_Muxer != this) return false;
    if (!GOLT_RMX_writeFrame(frame_behind(frame))) return false;
    // Wraps: a live source of transport packets counts past the range of an int within days.
    m_framesWritten = static_cast<int>(static_cast<unsigned>(m_framesWritten) + 1);
    if (m_framesWritten % 100 == 0) m_framesWrittenLast = m_framesWritten;
    return true;
}

bool GOLT_RMX::getContentInfo(MediaBuffer::ContentInfo *ci) const
{
    if (!m_fValid || ci == nullptr) return false;
    GOLT_remuxInfo_t rinfo = {};
    GOLT_RMX_getRemuxInfo(&rinfo);
    *ci = {};
    ci->containerType = CONTAINER_TS;
    ci->audioCodec = remapAudioCodec(m_sinfo.audioCodec);
    ci->audioPid = rinfo.audioPid;
    ci->videoCodec = remapVideoCodec(m_sinfo.videoCodec);
    ci->videoPid = rinfo.videoPid;
    ci->arInfo = remapARInfo(m_sinfo.vid_arInfo);
    ci->duration = m_sinfo.duration;
    ci->width = m_sinfo.vid_width;
    ci->height = m_sinfo.vid_height;
    ci->pixelAspectNumerator = m_sinfo.vid_pixelAspectNumerator;
    ci->pixelAspectDenominator = m_sinfo.vid_pixelAspectDenominator;
    ci->numAudioChannels = m_sinfo.aud_numChannels;
    ci->audioSampleRate = m_sinfo.aud_sampleRate;
    ci->framesPerKiloSeconds = m_sinfo.vid_framesPerKiloSeconds;
    ci->dimensionality = remapDimInfo(m_sinfo.vid_dimensionality);
    return true;
}

uint32_t GOLT_RMX::writerProc(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size)
{
    if (pv_handle == nullptr) return 0;
    return static_cast<uint32_t>(
        static_cast<Listener *>(pv_handle)->write(pb_data, static_cast<int>(ui4_size)));
}

AudioCodecs GOLT_RMX::remapAudioCodec(GOLT_codecs_t codec)
{
    // By the distance from GOLT_ACODEC_start.
    static const AudioCodecs ac_list[] = {AUDIO_CODEC_UNKNOWN, AUDIO_CODEC_MP3, AUDIO_CODEC_AAC,
                                          AUDIO_CODEC_DD, AUDIO_CODEC_DDP};
    if (codec < GOLT_ACODEC_start || codec >= GOLT_ACODEC_max) return AUDIO_CODEC_UNKNOWN;
    return ac_list[codec - GOLT_ACODEC_start];
}

VideoCodecs GOLT_RMX::remapVideoCodec(GOLT_codecs_t codec)
{
    // By the distance from GOLT_VCODEC_start.
    static const VideoCodecs vc_list[] = {VIDEO_CODEC_UNKNOWN, VIDEO_CODEC_MPEG2, VIDEO_CODEC_H264};
    if (codec < GOLT_VCODEC_start || codec >= GOLT_VCODEC_max) return VIDEO_CODEC_UNKNOWN;
    return vc_list[codec - GOLT_VCODEC_start];
}

MediaBuffer::AspectRatioInfo GOLT_RMX::remapARInfo(GOLT_info_AR_t arInfo)
{
    return static_cast<MediaBuffer::AspectRatioInfo>(arInfo);
}

MediaBuffer::Dimensionality GOLT_RMX::remapDimInfo(GOLT_info_dim_t dim)
{
    return static_cast<MediaBuffer::Dimensionality>(dim);
}
