// The frames of a transport stream, found again in its packets: one for each PES packet.

#ifndef TS_TS_FRAMES_H
#define TS_TS_FRAMES_H

#include <map>
#include <optional>

#include "ts_checker.h"
#include "ts_elementary.h"
#include "ts_framing.h"
#include "ts_time.h"

struct StreamFrame {
    uint64_t number;  ///< from 1, of all streams together
    Codec codec;
    std::optional<int64_t> time;  ///< 90 kHz, without the cut to 33 bits
    const TsPes &pes;
    const FrameContent &content;

    /// Decoding time, 90 kHz.
    std::optional<int64_t> decoding_time() const;
    /// Of video: decoding can begin here.
    bool is_key() const;
};

/// Takes what is found; TsEvents says what the others are.
class FrameUser {
public:
    virtual void on_frame(const StreamFrame &frame) = 0;
    virtual void on_problem(const TsProblem & /*problem*/) {}
    virtual void on_pat(uint64_t /*packet*/) {}
    virtual void on_pmt(uint64_t /*packet*/, uint16_t /*pid*/) {}
    virtual void on_program(const TsProgram & /*program*/) {}
    virtual void on_stream(uint16_t /*pid*/, uint8_t /*stream_type*/) {}
    virtual void on_clock(uint16_t /*pcr_pid*/) {}
    virtual void on_pcr(uint64_t /*packet*/, uint64_t /*pcr*/, bool /*f_jumps*/) {}
    virtual void on_frame_start(uint16_t /*pid*/) {}

protected:
    ~FrameUser() = default;
};

class TsFrames : private TsEvents {
public:
    /// start: about when the first frame is expected, 90 kHz. user: has to outlive the object.
    TsFrames(FrameUser &user, TsChecker::Programs programs, int64_t start = 0);

    TsChecker &checker() { return m_checker; }

private:
    void on_problem(const TsProblem &problem) override { m_user.on_problem(problem); }
    void on_pat(uint64_t packet) override { m_user.on_pat(packet); }
    void on_pmt(uint64_t packet, uint16_t pid) override { m_user.on_pmt(packet, pid); }
    void on_program(const TsProgram &program) override { m_user.on_program(program); }
    void on_stream(uint16_t pid, uint8_t stream_type) override;
    void on_clock(uint16_t pcr_pid) override { m_user.on_clock(pcr_pid); }
    void on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps) override
    {
        m_user.on_pcr(packet, pcr, f_jumps);
    }
    void on_pes_start(uint16_t pid) override;
    void on_payload(uint16_t pid, const uint8_t *bytes, size_t size) override;
    void on_pes_end(const TsPes &pes) override;

    FrameUser &m_user;
    TsChecker m_checker;
    std::map<uint16_t, ContentReader> m_readers;
    ContentReader *m_reader = nullptr;  // of the stream of m_reader_pid, which mostly comes again
    uint16_t m_reader_pid = 0;
    CutClock m_clock;
    uint64_t m_frames = 0;
};

/// The frames of the first program of a file, whatever its packets are.
class TsFileFrames final : private TsPackets {
public:
    explicit TsFileFrames(FrameUser &user)
        : m_frames(user, TsChecker::Programs::FIRST)
        , m_framing(*this)
    {
    }

    void feed(const uint8_t *bytes, size_t size) { m_framing.feed(bytes, size); }
    void finish();

    /// 188, 192 or 204; 0: no packet has been found.
    size_t packet_size() const { return m_framing.packet_size(); }
    uint64_t packets() { return m_frames.checker().packets(); }

private:
    void on_packet(const uint8_t *packet, uint64_t offset) override
    {
        m_frames.checker().feed_packet(packet, offset);
    }
    void on_lost(uint64_t /*offset*/, uint64_t size) override { m_frames.checker().lose(size); }

    TsFrames m_frames;
    TsFraming m_framing;
};

#endif
