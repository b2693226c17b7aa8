// The library's objects with owners. The library has to outlive the others, and a Listener the
// demuxer or muxer that it serves.

#ifndef HOST_STREAM_LIBRARY_H
#define HOST_STREAM_LIBRARY_H

#include <memory>

#include "libgolt.h"

/// Gives an object back to the driver that made it.
struct Release {
    PELA::RemuxerDriver *driver;

    void operator()(PELA::IAVDemuxer demuxer) const { driver->destroyDemuxer(demuxer); }
    void operator()(PELA::IAVMuxer muxer) const { driver->destroyMuxer(muxer); }
    void operator()(PELA::IAVFrame frame) const { driver->destroyFrame(frame); }
};

using Demuxer = std::unique_ptr<PELA::AVDemuxer, Release>;
using Muxer = std::unique_ptr<PELA::AVMuxer, Release>;
using Frame = std::unique_ptr<PELA::AVFrame, Release>;

/// The one driver.
class Library {
public:
    Library()
        : m_driver(GOLT_CreateRemuxerDriver())
    {
        if (m_driver == nullptr) throw std::bad_alloc();
    }
    ~Library() { GOLT_DestroyRemuxerDriver(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    /// Null when the library doesn't know the format; not valid when the source isn't of it.
    Demuxer make_demuxer(const char *format, PELA::AVDemuxer::Listener &source, int64_t size)
    {
        return Demuxer(m_driver->createDemuxer(format, &source, size), Release{m_driver});
    }

    /// Null or not valid when the library can't describe the source.
    Muxer make_muxer(const Demuxer &demuxer, PELA::AVMuxer::Listener &sink)
    {
        return Muxer(m_driver->createMuxer(PELA::CONTAINER_TS, demuxer.get(), &sink, false),
                     Release{m_driver});
    }

    Frame make_frame()
    {
        Frame frame(m_driver->createNewFrame(), Release{m_driver});
        if (frame == nullptr) throw std::bad_alloc();
        return frame;
    }

private:
    PELA::IRemuxerDriver m_driver;
};

#endif
