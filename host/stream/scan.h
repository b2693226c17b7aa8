// An input read to its end, and what its streams come to.

#ifndef HOST_STREAM_SCAN_H
#define HOST_STREAM_SCAN_H

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "input.h"
#include "json_text.h"
#include "stream_frames.h"

struct StreamTotals {
    uint16_t pid = 0;
    Codec codec = Codec::UNKNOWN;
    uint64_t frames = 0;
    uint64_t bytes = 0;         ///< of payload
    uint64_t audio_frames = 0;  ///< of audio, by their headers
    uint64_t timed_frames = 0;  ///< that have a time
    int64_t first = INT64_MAX;  ///< earliest and latest time, 90 kHz
    int64_t last = INT64_MIN;
    std::optional<AudioHeader> audio;  ///< of the first frame that has one

    void add(const StreamFrame &frame);
    /// From the first frame's beginning to the last one's end, which is taken to last as long as
    /// the others do; 90 kHz.
    int64_t duration() const;
    double bits_per_second() const;
};

using Totals = std::map<uint16_t, StreamTotals>;  // by PID

/// Reads all frames of an input, with a line of progress on a terminal.
void read_all(Input &input, Pump &pump, StreamFrames &frames);

/// Reads all of a transport stream, likewise; is_enough says when no more of it is wanted. What was wrong with the
/// input; empty when nothing was. Throws NotDone.
std::string read_all(
    Source &source, TsFileFrames &frames,
    const std::function<bool()> &is_enough = [] { return false; });

/// "250 frames, 1234 bytes, ..."
std::string totals_text(const StreamTotals &totals);
Json totals_json(const StreamTotals &totals);

#endif
