// A host over bytes in memory: the source of a demuxer, the sink of a muxer, and the driver.

#ifndef GOLT_TEST_HOST_DOUBLE_H
#define GOLT_TEST_HOST_DOUBLE_H

#include "golt_mem.h"
#include "libgolt.h"
#include "source.h"
#include "written.h"

/// A sink that keeps what is written.
class Sink : public PELA::AVMuxer::Listener {
public:
    Bytes stream;
    std::vector<int> sizes;  ///< of each write

    int write(uint8_t *buffer, int size) override
    {
        require_written(buffer, static_cast<size_t>(size));
        stream.insert(stream.end(), buffer, buffer + size);
        sizes.push_back(size);
        // As a sink may that encrypts in place: nothing later may be made of it.
        std::fill(buffer, buffer + size, uint8_t{0x55});
        return size;
    }

    /// The sink as the remuxer sees it; the handle is the Sink.
    static uint32_t write_proc(void *sink, uint8_t *buffer, uint32_t size)
    {
        return static_cast<uint32_t>(
            static_cast<Sink *>(sink)->write(buffer, static_cast<int>(size)));
    }
};

/// The one driver, for as long as the object lives.
class Driver {
public:
    Driver()
        : m_driver(GOLT_CreateRemuxerDriver())
    {
    }
    ~Driver() { GOLT_DestroyRemuxerDriver(); }
    Driver(const Driver &) = delete;
    Driver &operator=(const Driver &) = delete;

    PELA::RemuxerDriver *operator->() const { return m_driver; }

private:
    PELA::IRemuxerDriver m_driver;
};

/// What a frame holds, copied out of it.
struct Frame {
    uint64_t time_ms;
    uint32_t type;
    Bytes data;
};

/// Calls read(GOLT_frame_t *) until it is false or most frames have come, and keeps what came.
template <typename Read> std::vector<Frame> read_frames(Read read, size_t most = SIZE_MAX)
{
    std::vector<Frame> frames;
    while (frames.size() < most) {
        GOLT_frame_t frame = {};
        const bool ok = read(&frame);
        if (ok) {
            require_written(frame.ui8_timestamp);
            require_written(frame.pb_data, frame.ui4_size);
            frames.push_back({frame.ui8_timestamp, frame.ui4_frametype,
                              Bytes(frame.pb_data, frame.pb_data + frame.ui4_size)});
        }
        GOLT_freeMem(frame.pb_data);
        if (!ok) break;
    }
    return frames;
}

/// A whole file through the library, as a host does it; empty when it is refused.
inline Bytes remux_file(const std::string &format, const Bytes &file)
{
    Driver driver;
    Source source(file);
    Sink sink;
    PELA::IAVDemuxer demux = driver->createDemuxer(format.c_str(), &source, source.size());
    PELA::IAVMuxer mux = driver->createMuxer(PELA::CONTAINER_TS, demux, &sink, false);
    for (bool more = mux != nullptr; more;) {
        PELA::IAVFrame frame = driver->createNewFrame();
        more = demux->readFrame(frame) && mux->writeFrame(frame);
        driver->destroyFrame(frame);
    }
    driver->destroyMuxer(mux);
    driver->destroyDemuxer(demux);
    return sink.stream;
}

#endif
