// What a stage keeps, and the steps of its work.

#ifndef GOLT_STAGE_STATE_H
#define GOLT_STAGE_STATE_H

#include "golt_stage.h"
#include "stage_audio.h"
#include "stage_hold.h"
#include "stage_input.h"
#include "stage_packets.h"
#include "stage_program.h"
#include "stage_times.h"
#include "stage_video.h"

namespace golt {

enum LaneIndex : size_t { VIDEO = 0, AUDIO = 1, NO_LANE = 2 };

constexpr int64_t SECOND = 1000 * TICKS_PER_MS;
constexpr int64_t LONGEST_GAP =
    10 * SECOND;  // of the clock; it jumps where it has to go on by more
constexpr size_t MOST_FIRST_TIMES = DecodeTimes::MOST_DEPTH + 1;

// A packet goes through take, which sees where times jump and holds packets back until the times of the first ones
// are known, and then through process, which writes. Times are those of the file with the hints' offsets; m_shift
// comes to them where they are written.
// One object a stream: its fields are in the order of their use.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Stage::State {
    // Of the unit that is being written. Where COPIED, packets are written as they come, with a counter of their own.
    enum class Phase : uint8_t {
        NONE,
        HEAD,
        SLICES,
        COPIED_SLICES,
        FILTERED_SLICES,
        AUDIO,
        COPIED_AUDIO
    };

    State(Write sink, void *handle, const StageHints &hints);

    // What runs for each packet or frame is short of calls: they would take as long as the work. take has what it calls
    // compiled into it, but for what is seldom or long, which is marked so.
    bool write(const uint8_t *bytes, size_t size);
    [[gnu::noinline]] int take_one(const uint8_t *packet);
    int take_other(const uint8_t *packet, uint32_t head);
    [[gnu::noinline]] int take_all(const uint8_t *packets, int size);
    bool finish();
    bool flush();

    // Packets as they come
    [[gnu::noinline, gnu::flatten]] void take(const uint8_t *packet, uint32_t head,
                                              Payload payload);
    void take_pmt(const uint8_t *packet);
    void take_start(const uint8_t *packet, LaneIndex lane, Payload payload);
    void take_more(const uint8_t *packet, LaneIndex lane, Payload payload);
    [[gnu::cold, gnu::noinline]] void drop();
    int64_t time_of(LaneIndex lane, const UnitStart &start);
    bool is_jump(LaneIndex lane, int64_t time) const;
    [[gnu::cold, gnu::noinline]] void begin_hold();
    [[gnu::cold, gnu::noinline]] void hold(const uint8_t *packet, LaneIndex lane, Payload payload,
                                           const UnitStart *start);
    void look_for_depth(Payload payload, const UnitStart *start);
    bool may_go_on() const;
    size_t depth() const;
    void note_held(LaneIndex lane, int64_t time);
    [[gnu::cold, gnu::noinline]] void end_hold();
    LaneIndex lane_of(uint32_t head) const;

    // Units as they are written
    void process(const uint8_t *packet, LaneIndex lane, Payload payload, const UnitStart *start);
    void begin_unit(const uint8_t *packet, LaneIndex lane, Payload payload, const UnitStart &start,
                    int64_t time);
    [[gnu::noinline]] void go_on(const uint8_t *packet, Payload payload);
    [[gnu::noinline]] void begin_run();
    void end_run();
    void replay(const uint8_t *packet);
    void feed(Payload payload);
    void align();
    void end_unit();
    void end_audio();
    [[gnu::noinline]] void end_picture();
    [[gnu::noinline]] void begin_head(const uint8_t *bytes, size_t size);
    void move(Payload payload);
    [[gnu::cold, gnu::noinline]] void move_audio(const PesStart &start, const uint8_t *bytes,
                                                 size_t size, bool f_longer);
    void begin_audio(const uint8_t *packet, Payload payload, const UnitStart &unit);
    void put_with_pce(const uint8_t *bytes, size_t size);
    void begin_picture();
    void order_picture(PesStart &start);
    void put_head();
    void put_sets(uint8_t type);
    void take_sets();
    int64_t advance_clock(LaneIndex lane, int64_t time, bool f_tables);
    [[gnu::noinline]] void catch_up(int64_t time);
    [[gnu::cold, gnu::noinline]] int64_t begin_clock(bool f_carries);
    void put_clock(bool f_jumps);
    [[gnu::noinline]] void put_tables(bool f_due);
    int64_t written(int64_t time) const { return time + m_shift; }

    static void filtered(void *state, const uint8_t *bytes, size_t size)
    {
        static_cast<State *>(state)->m_writer.append(bytes, size);
    }

    PacketWriter m_writer;
    StageMode m_mode;
    const int64_t m_offsets[2];
    const Durations m_durations;
    const AacConfig m_aac;
    const AudioGrid m_hinted_grid;
    StageCounts m_counts;
    Program m_program;
    OutPid m_pids[2] = {{VIDEO_PID}, {AUDIO_PID}};

    // Packets as they come
    TimeExtension m_in_times;
    LaneIndex m_in_lane = NO_LANE;  // of the unit that has begun last
    bool m_f_begun[2] = {};         // a unit has, since times last jumped
    int64_t m_told[2] = {};         // time of the last one
    bool m_f_holding = true;
    PacketHold m_held;
    int64_t m_first_times[MOST_FIRST_TIMES];  // of pictures that are held
    size_t m_pictures_held = 0;
    int64_t m_lowest = 0, m_highest = 0;  // of all times that are held
    int64_t m_first_audio = 0;
    bool m_f_depth_known = false;

    // Units as they are written
    Phase m_phase = Phase::NONE;
    // Packets that go on with it: the first bytes but for the flags below. NO_HEAD: what comes has to be looked at.
    uint32_t m_open_head = NO_HEAD;
    LaneIndex m_lane = NO_LANE;
    unsigned m_packets_moved = 0;
    TimeExtension m_out_times;  // of packets that were held
    int64_t m_time = 0;
    uint8_t m_stream_id = 0;
    DecodeTimes m_decode;
    bool m_f_decode_begun = false;  // with the first times
    size_t m_mpeg2_depth = 1;
    AudioTimes m_audio;
    AudioGrid m_grid;
    FrameWalk m_walk;

    ClockBound m_bound;
    bool m_f_clock_begun = false;     // its first PCR has been written
    bool m_f_clock_jumps = false;     // the next PCR is the first one after a jump
    int64_t m_pcr = 0;                // the last one
    int64_t m_tables_last = NO_TIME;  // up to this PCR none are due
    int64_t m_shift = 0;
    bool m_f_shifted = false;

    ParameterSets m_sets;
    PictureHead m_head;
    SliceFilter m_filter{m_sets, &State::filtered, this};
};

}  // namespace golt

#endif
