// Judges the frames of a program as a strict receiver would: their times against each other and against the clock,
// and what has to stand before a key picture. It computes nothing but what the stream states, and shares nothing with
// what wrote it.

#ifndef TS_TS_JUDGE_H
#define TS_TS_JUDGE_H

#include <map>
#include <optional>
#include <vector>

#include "ts_clock.h"
#include "ts_frames.h"

// Limits of the rules. --help and the manual repeat them.
constexpr size_t REORDER_PICTURES = 16;  // MaxDpbFrames of H.264
constexpr int64_t AUDIO_TOLERANCE =
    15 * TICKS_PER_MS;  // less than a frame of any codec but short ones
constexpr int64_t PICTURE_JUMP = 10 * TICKS_PER_SECOND;  // and over
constexpr int64_t PICTURE_JUMP_FACTOR = 10;              // times the mean step
constexpr int64_t APART = 2 * TICKS_PER_SECOND;          // ISO/IEC 13818-1: data waits 1 s

/// The times of a stream, brought into the order of presentation by as many pictures as a decoder may hold back; an
/// audio decoder holds back none.
class TimeOrder {
public:
    explicit TimeOrder(size_t held_back)
        : m_held_back(held_back)
    {
    }

    struct Frame {
        int64_t time;
        uint64_t packet;  // in which it begins
    };
    struct Step {
        int64_t time;
        uint64_t packet;
        int64_t length;
        bool f_length;  // there was a time before
        int64_t backward;
    };
    /// Takes the next frame; what leaves the order, if any does.
    std::optional<Step> add(const Frame &frame);
    /// What is still held back, one by one.
    std::optional<Step> drain();

private:
    Step leave();

    size_t m_held_back;
    std::vector<Frame> m_waiting;  // sorted, the last one first
    std::optional<int64_t> m_last;
};

/// A user of it derives from it, and takes the problems: those that are no problem of the standard as well, marked as
/// unusual.
class TsJudge : public FrameUser, protected TsProblems {
public:
    TsJudge()
        : m_clock(*this)
    {
    }
    virtual ~TsJudge() = default;

    void on_frame(const StreamFrame &frame) override;
    void on_problem(const TsProblem &problem) override;
    void on_pat(uint64_t packet) override { m_clock.on_table(TsClock::PAT, packet, 0); }
    void on_pmt(uint64_t packet, uint16_t pid) override
    {
        m_clock.on_table(TsClock::PMT, packet, pid);
    }
    void on_clock(uint16_t pcr_pid) override { m_clock.on_pid(pcr_pid); }
    void on_stream(uint16_t pid, uint8_t stream_type) override;
    void on_frame_start(uint16_t pid) override;
    void on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps) override;
    /// To be called when the stream has ended.
    void finish();

    const TsClock &clock() const { return m_clock; }
    /// How long before its decoding time the last byte of a frame arrives at least, 90 kHz.
    std::optional<int64_t> least_lead() const { return m_least_lead; }

private:
    struct Stream {
        explicit Stream(size_t held_back)
            : order(held_back)
        {
        }

        TimeOrder order;
        uint64_t jumps = 0;               // of the clock, before the last frame
        uint64_t packet = 0;              // where the last frame begins
        std::optional<int64_t> reached;   // the latest decoding time
        std::optional<int64_t> decoding;  // of the last frame
        std::optional<int64_t>
            others_at_start;         // what the other kind had reached when the frame began
        int64_t sum = 0, steps = 0;  // of the steps between pictures
        // Of audio: the last PES packet with a time, and what has begun since then
        std::optional<int64_t> time;
        uint64_t samples = 0;
        uint32_t sample_rate = 0;
        uint64_t missing = 0;  // bytes of the last frame
        bool f_video = false, f_broken = false;
        bool f_sequence = false, f_picture_sets = false;
    };

    void start_again(uint16_t pid, Stream &stream);
    void judge_order(Stream &stream, const StreamFrame &frame);
    void judge_step(uint16_t pid, Stream &stream, const TimeOrder::Step &step);
    void judge_audio(Stream &stream, const StreamFrame &frame);
    void judge_distance(Stream &stream, const StreamFrame &frame);
    void judge_pictures(Stream &stream, const StreamFrame &frame);
    void report(const TsRule &rule, const StreamFrame &frame, int64_t amount = 0,
                const char *detail = nullptr);

    TsClock m_clock;
    std::map<uint16_t, Stream> m_streams;
    std::optional<int64_t> m_reached[2];  // the latest decoding times of audio and of video
    std::optional<int64_t> m_least_lead;
    bool m_f_pcr = false;
    uint64_t m_jumps = 0;  // announced, of the clock
    uint64_t m_jump_at = 0;
};

#endif
