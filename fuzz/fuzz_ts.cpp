// The reader of transport streams, given any bytes: each of them is in a packet or reported as lost, what is found
// doesn't depend on the pieces in which they come, and memory stays bounded.

#include <algorithm>

#include "counted_new.h"
#include "numbers.h"
#include "target.h"
#include "ts_judge.h"

namespace {

constexpr size_t REPEATS_MOST = 8;
// 8192 PIDs with what is known of each, the tables, and the packets that are held.
constexpr size_t HEAP_MOST = 16 * 1024 * 1024;

class Judge final : public TsJudge {
public:
    explicit Judge(size_t size)
        : m_size(size)
    {
    }

    uint64_t frames = 0, problems = 0, lost = 0;

    void on_frame(const StreamFrame &frame) override
    {
        require(frame.number == ++frames, "frames are counted");
        require(frame.pes.offset < m_size, "a frame begins in the file");
        require(frame.pes.payload_size <= m_size, "a frame has bytes of the file");
        require(frame.content.unit_count <= FrameContent::MOST_UNITS, "units are limited");
        require(frame.content.audio.stray <= m_size, "stray bytes are the file's");
        TsJudge::on_frame(frame);
    }

private:
    void found(const TsProblem &problem) override
    {
        ++problems;
        require(problem.packet <= m_size / TS_PACKET_SIZE, "a problem is in the file");
        require(problem.amount >= 0 && problem.count > 0, "amounts and counts aren't negative");
        if (problem.rule == &rules::LOST_BYTES) lost += static_cast<uint64_t>(problem.amount);
    }

    const size_t m_size;
};

struct Verdict {
    uint64_t frames, problems;
    bool operator==(const Verdict &other) const
    {
        return frames == other.frames && problems == other.problems;
    }
};

Verdict judge(const Bytes &file, size_t repeats, size_t piece)
{
    const size_t size = file.size() * repeats;
    Judge judge(size);
    const CallWatch watch;
    TsFileFrames frames(judge);
    for (size_t i = 0; i < repeats; ++i) {
        for (size_t at = 0; at < file.size(); at += piece)
            frames.feed(file.data() + at, std::min(piece, file.size() - at));
    }
    frames.finish();
    judge.finish();
    require(frames.packets() * frames.packet_size() + judge.lost == size,
            "each byte is in a packet, or lost");
    const Distances &pcrs = judge.clock().pcrs();
    require(pcrs.count == 0 || (pcrs.least <= pcrs.mean() && pcrs.mean() <= pcrs.most),
            "the mean is between least and most");
    return {judge.frames, judge.problems};
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    begin_input();
    Numbers numbers = {pb_data, size};
    const size_t piece = static_cast<size_t>(numbers.take(1)) * 8 + 1;
    // Twice is enough for most of what a repetition shows.
    const auto repetition = static_cast<size_t>(numbers.take(1));
    const size_t repeats = repetition < 0xF0 ? 1 + (repetition & 1) : repetition % REPEATS_MOST + 1;
    const Bytes file(numbers.pb_at, numbers.pb_at + numbers.left);
    const Verdict verdict = judge(file, repeats, piece);
    require(verdict == judge(file, repeats, file.size() + 1), "pieces make no difference");
    require(g_heap.most < HEAP_MOST, "memory is bounded");
    return 0;
}
