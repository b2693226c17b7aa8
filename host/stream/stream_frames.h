// The frames in what the library writes. This is how a host looks into frames, which are opaque handles to it.

#ifndef HOST_STREAM_STREAM_FRAMES_H
#define HOST_STREAM_STREAM_FRAMES_H

#include "libgolt.h"
#include "ts_frames.h"

/// A sink that finds the frames, and keeps nothing of them.
class StreamFrames final : public PELA::AVMuxer::Listener {
public:
    /// start_ms: about where the first frame is expected. user: has to outlive the object.
    StreamFrames(uint32_t start_ms, FrameUser &user)
        : m_frames(user, TsChecker::Programs::ALL, int64_t{start_ms} * TICKS_PER_MS)
    {
    }

    int write(uint8_t *buffer, int size) override;
    /// Declares the frames written so far whole; without it one ends where the next of its
    /// stream begins.
    void end_frames() { m_frames.checker().end_pes(); }
    void finish() { m_frames.checker().finish(); }

    uint64_t bytes() const { return m_bytes; }

private:
    TsFrames m_frames;
    uint64_t m_bytes = 0;
};

#endif
