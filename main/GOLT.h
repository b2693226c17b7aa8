// The driver front: the classes behind the host's RemuxerDriver, AVDemuxer and AVMuxer, and the
// table that maps a format name to the functions of one demuxer.
//
// The state of every demuxer module and of the remuxer is static. So at most one demuxer of a format
// and one muxer are meant to be alive at a time. A second one is harmless: the object made last
// owns the state, and the one before it reads or writes nothing sensible any more.

#ifndef GOLT_DRIVER_H
#define GOLT_DRIVER_H

#include "golt_common.h"
#include "libgolt.h"
#include "tcache.h"

/// One row of the format table: the six functions of a demuxer.
struct GOLT_DMX_handler_t {
    /// NUL-terminated names one after another, ended by an empty one; a row with an empty list
    /// is skipped by the search, a null pointer ends the table.
    const char *format;
    bool (*init)(tpf_read, tpf_seek, void *);
    bool (*destroy)();
    bool (*readFrame)(GOLT_frame_t *);
    bool (*seekToBytes)(int64_t);
    bool (*seekToTime)(uint64_t);
    bool (*getStreamInfo)(GOLT_streamInfo_t *);
};

class GOLT : public PELA::RemuxerDriver {
public:
    static GOLT_DMX_handler_t g_dmx_handlers[];

    GOLT();
    PELA::IAVFrame createNewFrame() override;
    void destroyFrame(PELA::IAVFrame frame) override;
    PELA::IAVDemuxer createDemuxer(const char *format, PELA::AVDemuxer::Listener *listener,
                                   int64_t fileSize) override;
    void destroyDemuxer(PELA::IAVDemuxer demux) override;
    PELA::IAVMuxer createMuxer(PELA::Containers container, PELA::IAVDemuxer demux,
                               PELA::AVMuxer::Listener *listener, bool fApplyFilters) override;
    void destroyMuxer(PELA::IAVMuxer remux) override;
    ~GOLT() override;
};

class GOLT_DMX : public PELA::AVDemuxer {
public:
    /// Says in m_cookie that a usable GOLT_DMX is behind a host's handle.
    static constexpr uint32_t COOKIE = 0x676F6C74;

    GOLT_DMX(GOLT_DMX_handler_t *handler, Listener *listener, int64_t fileSize);
    bool isValid() const override;
    bool readFrame(PELA::IAVFrame frame) override;
    bool seekToBytes(uint64_t pos) override;
    bool seekToTime(uint32_t time) override;
    ~GOLT_DMX() override;
    virtual bool getStreamInfo(GOLT_streamInfo_t *pt_sinfo);

    GOLT_DMX(const GOLT_DMX &) = delete;
    GOLT_DMX &operator=(const GOLT_DMX &) = delete;

    /// A demuxer module's way to its source; pv_handle is a TCache, and without one nothing is read
    /// and every seek fails.
    static uint32_t readProc(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size);
    static int32_t seekProc(void *pv_handle, int64_t i8_offset);

    bool hasCookie() const { return m_cookie == COOKIE; }

private:
    uint32_t m_cookie;              // COOKIE, or 0 after a failed init
    GOLT_DMX_handler_t *m_handler;  // null after a failed init
    TCache *m_listenerCache;
};

class GOLT_RMX : public PELA::AVMuxer {
public:
    GOLT_RMX(Listener *listener, bool fApplyFilters, const GOLT_streamInfo_t &sinfo);
    bool isValid() const override;
    bool getPts(PELA::IAVFrame fr, uint32_t &pts) const override;
    bool writeHeader() override;
    bool writeTrailer() override;
    bool convertFrame(PELA::IAVFrame frame, bool fAdjustPts) override;
    bool writeFrame(PELA::IAVFrame frame) override;
    bool getContentInfo(PELA::MediaBuffer::ContentInfo *ci) const override;
    ~GOLT_RMX() override;

    GOLT_RMX(const GOLT_RMX &) = delete;
    GOLT_RMX &operator=(const GOLT_RMX &) = delete;

    /// The remuxer's way to the host; pv_handle is a Listener, and without one nothing is written.
    static uint32_t writerProc(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size);

    /// The library's values in the host's terms; what has no such term is unknown there.
    static PELA::AudioCodecs remapAudioCodec(GOLT_codecs_t codec);
    static PELA::VideoCodecs remapVideoCodec(GOLT_codecs_t codec);
    static PELA::MediaBuffer::AspectRatioInfo remapARInfo(GOLT_info_AR_t arInfo);
    static PELA::MediaBuffer::Dimensionality remapDimInfo(GOLT_info_dim_t dim);

private:
    GOLT_streamInfo_t m_sinfo;
    bool m_fValid;
    int m_framesWritten;
    int m_framesWrittenLast;  // last multiple of 100 that m_framesWritten has reached
};

#endif
