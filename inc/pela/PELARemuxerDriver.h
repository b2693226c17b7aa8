// The interface between a host player and a remuxer library.
//
// The library implements RemuxerDriver, AVDemuxer and AVMuxer, the host the two Listener
// interfaces. Hosts are compiled elsewhere: the order of the virtual functions is binary interface
// and never changes.

#ifndef PELA_REMUXER_DRIVER_H
#define PELA_REMUXER_DRIVER_H

#include <cstdint>

#include "PELAMediaPlayer.h"
#include "PELATypes.h"

namespace PELA {

/// One opened source. Made by RemuxerDriver::createDemuxer.
class AVDemuxer {
public:
    /// The host's side of a source. The host owns it; it has to outlive the demuxer.
    class Listener {
    public:
        /// Reads up to size bytes to buffer from the read position, which moves on by what was
        /// delivered. Returns their number, which may be short of size; 0 when there is nothing
        /// more; a negative value when nothing has come yet and asking again makes sense.
        virtual int read(uint8_t *buffer, int size) = 0;
        /// Sets the read position to offset bytes from the start of the source (whence is 0).
        /// Returns 0, or -1 when that can't be done.
        virtual int64_t seek(int64_t offset, int whence) = 0;
        virtual ~Listener() {}
    };

    /// Whether the source was recognised; all other operations are false on one that wasn't.
    virtual bool isValid() const = 0;
    /// Fills a new frame of createNewFrame with the next frame of the source. False at the end of
    /// the source and on a failure; the frame then goes to destroyFrame unused.
    virtual bool readFrame(IAVFrame frame) = 0;
    /// Moves to pos bytes from the start, as far as the format supports it.
    virtual bool seekToBytes(uint64_t pos) = 0;
    /// Moves to a time in milliseconds, as far as the format supports it.
    virtual bool seekToTime(uint32_t time) = 0;
    virtual ~AVDemuxer() {}
};

/// One output stream. Made by RemuxerDriver::createMuxer.
class AVMuxer {
public:
    /// The host's sink. The host owns it; it has to outlive the muxer.
    class Listener {
    public:
        /// Takes size bytes, which belong to the library again when the call returns. The result is
        /// ignored.
        virtual int write(uint8_t *buffer, int size) = 0;
        virtual ~Listener() {}
    };

    /// Whether the muxer could be set up; all other operations are false on one that couldn't.
    virtual bool isValid() const = 0;
    /// Stores the frame's presentation time in ticks of 90 kHz, cut to 32 bits.
    virtual bool getPts(IAVFrame fr, uint32_t &pts) const = 0;
    /// No effect on a transport stream, which has no header; true.
    virtual bool writeHeader() = 0;
    /// No effect on a transport stream, which simply stops; true.
    virtual bool writeTrailer() = 0;
    /// No effect: frames are written as they were read; true.
    virtual bool convertFrame(IAVFrame frame, bool fAdjustPts) = 0;
    /// Writes one frame through the Listener.
    virtual bool writeFrame(IAVFrame frame) = 0;
    /// Describes the output stream. The tables that ci may point at stay null.
    virtual bool getContentInfo(MediaBuffer::ContentInfo *ci) const = 0;
    virtual ~AVMuxer() {}
};

/// The library as the host sees it. There is one driver at a time; every frame has to be destroyed
/// before it.
class RemuxerDriver {
public:
    /// An empty frame, or null when there is no memory.
    virtual IAVFrame createNewFrame() = 0;
    /// Releases a frame, which must not be null, and its data.
    virtual void destroyFrame(IAVFrame frame) = 0;
    /// Opens a source. format: a container's short or MIME name, NUL-terminated; fileSize: bytes, 0
    /// where unknown. Null when the name is unknown or an argument is missing; when the source
    /// isn't of that format, an object whose isValid is false. The host destroys either one with
    /// destroyDemuxer.
    virtual IAVDemuxer createDemuxer(const char *format, AVDemuxer::Listener *listener,
                                     int64_t fileSize) = 0;
    /// Releases a demuxer, valid or not; null is ignored.
    virtual void destroyDemuxer(IAVDemuxer demux) = 0;
    /// Makes the output for a demuxer of this driver, or null. container: CONTAINER_TS. listener
    /// may be null: the output is then dropped. The demuxer may be destroyed before the muxer.
    virtual IAVMuxer createMuxer(Containers container, IAVDemuxer demux,
                                 AVMuxer::Listener *listener, bool fApplyFilters) = 0;
    /// Releases a muxer; null is ignored.
    virtual void destroyMuxer(IAVMuxer remux) = 0;
    virtual ~RemuxerDriver() {}
};

}  // namespace PELA

#endif
