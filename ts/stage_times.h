// The times of the stage, in ticks of 90 kHz: when pictures are decoded, when audio goes on, and what the clock of
// the stream shows.

#ifndef GOLT_STAGE_TIMES_H
#define GOLT_STAGE_TIMES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "golt_stage.h"

namespace golt {

constexpr int64_t TICKS_PER_MS = 90;

/// Times of decoding, from those of presentation. Of pictures that are reordered by a depth of n, the next to be
/// decoded is decoded at the lowest of the last n + 1 times that hasn't been taken: no picture can be shown before.
class DecodeTimes {
public:
    static constexpr size_t MOST_DEPTH = 16;

    /// What comes next begins anew. times: of its first pictures, depth + 1 if there are so many; gets sorted.
    /// lowest: for the first time of decoding, as far as it can be kept to. Returns that one.
    int64_t begin(size_t depth, int64_t *times, size_t count, int64_t lowest);
    void set_depth(size_t depth) { m_depth = depth < MOST_DEPTH ? depth : MOST_DEPTH; }
    size_t depth() const { return m_depth; }
    /// The time at which a picture with this time of presentation is decoded. It rises with each call; where it
    /// can't be as low as pts, it is above.
    int64_t next(int64_t pts);
    /// Begins anew with the picture that came last, if this makes its time of decoding later: all that came before are
    /// shown before it. Returns that time. lowest: as far as it can be kept to.
    int64_t begin_again(int64_t pts, int64_t lowest);
    bool has_last() const { return m_last != INT64_MIN; }
    int64_t last() const { return m_last; }

private:
    size_t m_depth = 0;
    int64_t m_waiting[MOST_DEPTH + 1];  // sorted
    size_t m_count = 0;
    int64_t m_last = INT64_MIN;
};

/// Times of audio in exact fractions, from the lengths of the frames.
class AudioTimes {
public:
    void begin(const AudioGrid &grid)
    {
        *this = AudioTimes();
        m_grid = grid;
    }
    /// The time of the next PES packet, for which the file states one.
    int64_t next(int64_t told, Durations durations);
    /// What the one that came last has in it.
    void add(uint64_t samples, uint32_t rate);
    /// Whether next would have to guess: the file states nothing, and the one that came last had no length.
    bool is_lost(int64_t told, Durations durations) const
    {
        return !m_f_measured && stands_still(told, durations);
    }
    /// Whether the file's time doesn't move.
    bool stands_still(int64_t told, Durations durations) const
    {
        return m_f_begun && told == m_told && durations != Durations::TOLD;
    }
    int64_t last() const { return m_last; }

private:
    [[gnu::cold, gnu::noinline]] void set_step(uint64_t samples, uint32_t rate);
    [[gnu::cold, gnu::noinline]] bool is_on_grid(int64_t told);

    bool m_f_begun = false;
    bool m_f_measured = false;  // what came last has a length
    int64_t m_told = 0;         // of the one that came last
    int64_t m_last = 0;
    // Where that one ends: half a tick after its exact end, cut to ticks, and what was cut off, times the rate.
    int64_t m_next = 0;
    uint64_t m_rest = 0;
    // How long it is. Most are as long as the one before, so that nothing has to be divided for them.
    uint64_t m_samples = 0;
    uint32_t m_rate = 0;
    int64_t m_step = 0;
    uint64_t m_step_rest = 0;
    AudioGrid m_grid;
};

/// What the clock may show: less than any time that is still to come, by a lead. Streams take turns in a file, more or
/// less closely; the clock waits for the one that is behind, as long as it still comes.
class ClockBound {
public:
    static constexpr int64_t LEAD = 200 * TICKS_PER_MS;
    /// The first unit's.
    static constexpr int64_t FIRST_LEAD = 300 * TICKS_PER_MS;

    void begin() { *this = ClockBound(); }
    /// lane: 0 or 1. Notes that a PES packet is decoded at dts, and returns how far the clock may go now.
    int64_t add(size_t lane, int64_t dts, bool f_other_expected);
    /// By how much the one that came last is behind the other lane; not above 0 where it isn't.
    int64_t behind() const { return m_behind; }

private:
    static constexpr int64_t SLACK =
        FIRST_LEAD - LEAD;  // by which a lane may be behind without delaying the clock
    static constexpr int64_t FIRST_SPREAD = 1000 * TICKS_PER_MS;
    static constexpr int64_t MOST_SPREAD = 60000 * TICKS_PER_MS;
    static constexpr unsigned UNITS_UNTIL_STALLED = 16;

    struct Lane {
        bool f_begun = false;
        int64_t last = 0;
        unsigned units_of_other = 0;  // since then
    };
    Lane m_lanes[2];
    int64_t m_behind = 0;
    int64_t m_spread = FIRST_SPREAD;  // how far the clock waits for a lane from which nothing comes
};

}  // namespace golt

#endif
