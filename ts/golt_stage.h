// A stage between libgolt and the sink of a host. The library's transport stream is exact, but bare: it has no DTS,
// its clock follows the times of presentation, and its tables come by the packet. The stage takes its packets and
// gives on a stream that every receiver takes (ISO/IEC 13818-1): with DTS, a clock that only rises, tables every
// 100 ms, parameter sets and access unit delimiters where they belong.
//
// It depends on nothing, libgolt included. It starts no thread and throws nothing; its memory is bounded, and once
// it runs it allocates nothing.

#ifndef GOLT_STAGE_H
#define GOLT_STAGE_H

#include <cstddef>
#include <cstdint>

namespace golt {

/// What a host may know of a stream beyond the packets. All of it may be left out.
struct StreamHints {
    /// Added to all times of the stream; ticks of 90 kHz. Where an edit list moves a track.
    int64_t offset = 0;
    /// AVCDecoderConfigurationRecord (ISO/IEC 14496-15) or AudioSpecificConfig (ISO/IEC 14496-3). Copied as far as
    /// it is needed.
    const uint8_t *config = nullptr;
    size_t config_size = 0;
};

/// Whether a file states how long each frame lasts.
enum class Durations : uint8_t {
    UNKNOWN,  ///< frames of audio that all have the same time are taken to come one after the other
    TOLD,     ///< each time is the file's own
    NOT_TOLD,  ///< the times follow from the frames themselves
};

enum class StageMode : uint8_t {
    BY_FIRST_PACKET,  ///< REMUX if the first packet is libgolt's own PAT, else PASS
    REMUX,
    PASS,  ///< all bytes pass as they are: packets that were ready-made in the file
};

struct StageHints {
    StageMode mode = StageMode::BY_FIRST_PACKET;
    StreamHints video;
    StreamHints audio;
    Durations audio_durations = Durations::UNKNOWN;
};

/// What a stage has done, and what it couldn't mend.
struct StageCounts {
    uint64_t packets_in = 0;
    uint64_t bytes_out = 0;  ///< given to the sink
    uint64_t pictures = 0;
    uint64_t audio_frames = 0;  ///< PES packets of audio
    uint64_t jumps = 0;         ///< of the clock, marked in the stream
    // Faults of the source
    uint64_t late = 0;       ///< PES packets that come after the clock has reached them
    int64_t worst_late = 0;  ///< ticks of 90 kHz by which the worst of them missed its lead
    uint64_t misordered =
        0;  ///< pictures that are to be shown before ones that were to be decoded by then
    uint64_t untimed_audio = 0;  ///< PES packets of audio whose time can't be known
    uint64_t dropped = 0;        ///< packets that belong to nothing
    bool f_no_memory = false;  ///< some could not be had; the start of the stream may be less exact
};

/// The stage. One for each stream that is written.
class Stage {
public:
    /// Takes whole packets; packets is the stage's and stays only during the call. False: could not be written.
    typedef bool (*Write)(void *handle, const uint8_t *packets, size_t size);

    /// sink, handle: where the packets go; many at once.
    Stage(Write sink, void *handle, const StageHints &hints = {});
    /// Gives on nothing more: call finish before.
    ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    /// False when there was no memory for it; every write then fails.
    bool is_valid() const { return m_state != nullptr; }
    /// Takes size bytes, which are packets of 188 bytes as the library writes them. False after a write to the sink
    /// has failed: from then on everything is dropped.
    bool write(const uint8_t *packets, size_t size);
    /// Gives the sink what is ready. A host that sends live may call it as often as it likes; of the PES packet that
    /// came last, and of the first pictures, which are needed for the times, more may be held back.
    bool flush();
    /// To be called when the stream ends, or when a pause follows: all that has come goes to the sink.
    bool finish();

    StageCounts counts() const;
    /// Ticks of 90 kHz by which all times were moved, once the first packets have been given on: at least one
    /// second, so that no time falls below zero; the same for all streams unless that is too little.
    int64_t shift() const;

private:
    struct State;
    State *m_state;
};

/// The stage as a Listener of a muxer, before another one:
///
///     golt::StageListener<PELA::AVMuxer::Listener> stage(output);
///     ... driver->createMuxer(PELA::CONTAINER_TS, demuxer, &stage, false) ...
///     stage.finish();
///
/// output: has to outlive it, and to take any number of whole packets in a call of write.
template <class Listener> class StageListener : public Listener {
public:
    explicit StageListener(Listener &output, const StageHints &hints = {})
        : m_stage(&StageListener::pass_on, &output, hints)
    {
    }

    int write(uint8_t *buffer, int size) override
    {
        return size >= 0 && m_stage.write(buffer, static_cast<size_t>(size)) ? size : -1;
    }
    bool is_valid() const { return m_stage.is_valid(); }
    bool flush() { return m_stage.flush(); }
    bool finish() { return m_stage.finish(); }
    StageCounts counts() const { return m_stage.counts(); }

private:
    static bool pass_on(void *output, const uint8_t *packets, size_t size)
    {
        // A Listener may not change what it gets, though its parameter doesn't say so.
        return static_cast<Listener *>(output)->write(const_cast<uint8_t *>(packets),
                                                      static_cast<int>(size)) >= 0;
    }

    Stage m_stage;
};

}  // namespace golt

#endif
