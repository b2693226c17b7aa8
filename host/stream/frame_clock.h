// Follows the frames' times, which come cut to 32 bits of 90 kHz ticks and so start again every 13
// hours.

#ifndef HOST_STREAM_FRAME_CLOCK_H
#define HOST_STREAM_FRAME_CLOCK_H

#include <cstdint>

#include "ts_time.h"

class FrameClock {
public:
    /// The first frame is expected a few hours before or after a time, 90 kHz. Without a call it may have any time.
    void begin_around(int64_t time);

    /// Takes the next frame's time and returns it in milliseconds, without the cut.
    int64_t follow(uint32_t pts) { return m_clock.follow(pts) / TICKS_PER_MS; }
    /// Counts the frame whose time was followed last.
    void count();

    /// Latest time counted, in milliseconds. Frames may go back and forth before it.
    int64_t reached_ms() const { return m_reached / TICKS_PER_MS; }

private:
    static constexpr unsigned HOST_PTS_BITS = 32;  // of the times that a host gets

    CutClock m_clock{HOST_PTS_BITS, 0};
    int64_t m_reached = 0;
    bool m_f_counting = false;
};

#endif
