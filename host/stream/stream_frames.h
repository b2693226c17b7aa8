// The frames of a transport stream, found again in its packets: one for each PES packet. This is
// how a host looks into frames, which are opaque handles to it.

#ifndef HOST_STREAM_STREAM_FRAMES_H
#define HOST_STREAM_STREAM_FRAMES_H

#include <map>
#include <optional>

#include "libgolt.h"
#include "ts_checker.h"
#include "ts_elementary.h"
#include "ts_time.h"

struct StreamFrame {
    uint64_t number;  ///< from 1, of all streams together
    Codec codec;
    std::optional<int64_t> time;  ///< 90 kHz, without the cut to 33 bits
    const TsPes &pes;
    const FrameContent &content;
};

/// Takes what is found; TsEvents brings problems and the clock too.
class FrameUser {
public:
    virtual void on_frame(const StreamFrame &frame) = 0;
    virtual void on_problem(const TsProblem & /*problem*/) {}
    virtual void on_pcr(uint64_t /*packet*/, uint64_t /*pcr*/, bool /*f_jumps*/) {}

protected:
    ~FrameUser() = default;
};

/// A sink that finds the frames in what the library writes, and keeps nothing of it.
class StreamFrames final : public PELA::AVMuxer::Listener, private TsEvents {
public:
    /// start_ms: about where the first frame is expected. user: has to outlive the object.
    StreamFrames(uint32_t start_ms, FrameUser &user);

    int write(uint8_t *buffer, int size) override;
    /// Declares the frames written so far whole; without it one ends where the next of its
    /// stream begins.
    void end_frames() { m_checker.end_pes(); }
    void finish() { m_checker.finish(); }

    uint64_t bytes() const { return m_bytes; }

private:
    void on_stream(uint16_t pid, uint8_t stream_type) override;
    void on_pes_start(uint16_t pid) override;
    void on_payload(uint16_t pid, const uint8_t *bytes, size_t size) override;
    void on_pes_end(const TsPes &pes) override;
    void on_problem(const TsProblem &problem) override { m_user.on_problem(problem); }
    void on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps) override
    {
        m_user.on_pcr(packet, pcr, f_jumps);
    }

    FrameUser &m_user;
    TsChecker m_checker;
    std::map<uint16_t, ContentReader> m_readers;
    ContentReader *m_reader = nullptr;  // of the stream of m_reader_pid, which mostly comes again
    uint16_t m_reader_pid = 0;
    CutClock m_clock;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
};

#endif
