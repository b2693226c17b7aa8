// A stage between libgolt and the sink of a host. The library's transport stream is exact, but minimal: it has no
// DTS, its clock follows the presentation times, and its tables come after a fixed number of packets. The stage
// takes its packets and writes a stream that strict receivers accept (ISO/IEC 13818-1): with DTS, a clock that only
// rises, tables every 100 ms, parameter sets and access unit delimiters where they belong.
//
// It depends on nothing, not even on libgolt. It starts no thread and throws nothing; its memory is bounded, and
// after the start of a stream it allocates nothing.

#ifndef GOLT_STAGE_H
#define GOLT_STAGE_H

#include <cstddef>
#include <cstdint>

namespace golt {

/// What a host may know about a stream beyond its packets. Each field is optional.
struct StreamHints {
    /// Added to all times of the stream, for a track that an edit list moves; ticks of 90 kHz.
    int64_t offset = 0;
    /// AVCDecoderConfigurationRecord (ISO/IEC 14496-15) or AudioSpecificConfig (ISO/IEC 14496-3). Copied as far as
    /// it is needed.
    const uint8_t *config = nullptr;
    size_t config_size = 0;
};

/// Whether a file states how long each frame lasts.
enum class Durations : uint8_t {
    UNKNOWN,   ///< audio frames that all have the same time are taken to follow one another
    TOLD,      ///< each time is the file's own
    NOT_TOLD,  ///< the times follow from the frames themselves
    COUNTED,  ///< the file has no times: those that come were counted, less exactly than the frames tell
};

enum class StageMode : uint8_t {
    BY_FIRST_PACKET,  ///< REMUX if the first packet is libgolt's own PAT, else PASS
    REMUX,
    PASS,  ///< all bytes pass unchanged: the file already consists of packets
};

/// The times of audio whose frames follow one another without a gap: frame n is at time + n * samples / rate.
struct AudioGrid {
    int64_t time = 0;      ///< of the first frame, without the stage's shift; ticks of 90 kHz
    uint32_t samples = 0;  ///< of a frame; 0: no grid
    uint32_t rate = 0;     ///< hertz
};

struct StageHints {
    StageMode mode = StageMode::BY_FIRST_PACKET;
    StreamHints video;
    StreamHints audio;
    Durations audio_durations = Durations::UNKNOWN;
    /// Of the whole, where the stream begins in the middle of it: its frames then have the exact times that they have
    /// there, not those of the file, which are rounded.
    AudioGrid audio_grid = {};
    /// Near which time of the library's stream it begins, without offsets, within 13 hours; ticks of 90 kHz. Times start
    /// again after 26.5 hours: what begins later can't tell by itself how often they have.
    int64_t begin = ANYWHERE;
    static constexpr int64_t ANYWHERE = INT64_MIN;
};

/// What a stage has done, and what it couldn't correct.
struct StageCounts {
    uint64_t packets_in = 0;
    uint64_t bytes_out = 0;  ///< given to the sink
    uint64_t pictures = 0;
    uint64_t audio_frames = 0;  ///< PES packets of audio
    uint64_t jumps = 0;         ///< of the clock, marked in the stream
    // Faults of the source
    uint64_t late = 0;       ///< PES packets that come after the clock has reached them
    int64_t worst_late = 0;  ///< ticks of 90 kHz by which the worst of them missed its lead
    /// Ticks of 90 kHz by which a frame came, at worst, after later ones of the other stream. A receiver that plays both
    /// has to keep so much of that one.
    int64_t worst_apart = 0;
    uint64_t misordered =
        0;  ///< pictures with a time of presentation before their time of decoding
    uint64_t untimed_audio = 0;  ///< PES packets of audio whose time can't be known
    uint64_t dropped = 0;        ///< packets that belong to nothing
    bool f_no_memory = false;    ///< memory was short; the start of the stream may be less exact
};

/// The stage. One for each stream that is written.
class Stage {
public:
    /// Takes whole packets; they belong to the stage and are valid only during the call. False: not written.
    typedef bool (*Write)(void *handle, const uint8_t *packets, size_t size);

    /// sink, handle: where the packets go, many in one call.
    Stage(Write sink, void *handle, const StageHints &hints = {});
    /// Writes nothing more: call finish before.
    ~Stage();
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    /// False when there was no memory for it; every write then fails.
    bool is_valid() const { return m_state != nullptr; }
    /// Takes size bytes, which are packets of 188 bytes as the library writes them. False after a write to the sink
    /// has failed: from then on everything is dropped.
    bool write(const uint8_t *packets, size_t size);
    /// The same, for a Listener: returns size, or -1.
    int take(const uint8_t *packets, int size);
    /// Writes what is ready to the sink. A host that sends live may call it as often as it likes. Parts of the last
    /// PES packet, and of the first pictures, which are needed for the times, may still be held back.
    bool flush();
    /// To be called when the stream ends, or when a pause follows: all that has come goes to the sink.
    bool finish();

    StageCounts counts() const;
    /// Ticks of 90 kHz by which all times were moved; known once the first packets have been written. At least one
    /// second, so that no time is below zero, and more only if that is too little.
    int64_t shift() const;
    /// Of the audio, by its first PES packet; known once that has ended.
    AudioGrid audio_grid() const;

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

    int write(uint8_t *buffer, int size) override { return m_stage.take(buffer, size); }
    bool is_valid() const { return m_stage.is_valid(); }
    bool flush() { return m_stage.flush(); }
    bool finish() { return m_stage.finish(); }
    StageCounts counts() const { return m_stage.counts(); }
    const Stage &stage() const { return m_stage; }

private:
    static bool pass_on(void *output, const uint8_t *packets, size_t size)
    {
        // A Listener must not change the packets, although its parameter would allow it.
        return static_cast<Listener *>(output)->write(const_cast<uint8_t *>(packets),
                                                      static_cast<int>(size)) >= 0;
    }

    Stage m_stage;
};

}  // namespace golt

#endif
