// What comes out of the library, counted and filtered on its way to the sink. The library's frames
// are opaque to a host; its packets show which stream each one belongs to, when it is shown and how
// long it lasts.

#ifndef HOST_STREAM_TALLY_H
#define HOST_STREAM_TALLY_H

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>

#include "libgolt.h"
#include "packet_watch.h"
#include "ts_elementary.h"
#include "ts_packet.h"
#include "ts_time.h"

/// The frames of one stream.
struct StreamTally {
    Codec codec = Codec::UNKNOWN;
    uint64_t frames = 0;   ///< that the library has written
    uint64_t passed = 0;   ///< of them, to the sink
    uint64_t bytes = 0;    ///< in them, as far as their length is stated
    uint64_t damaged = 0;  ///< frames that don't begin as frames of their codec do
    int64_t first_damaged = 0;
    int64_t first = 0;  ///< earliest and latest time, 90 kHz
    int64_t reached = 0;
    int64_t longest_step = 0;  ///< of reached
    uint64_t samples = 0;      ///< of audio, in each channel
    uint32_t sample_rate = 0;  ///< of audio, by its first frame

    /// Where its last frame ends, 90 kHz: of audio by its samples, unless there are gaps, of video by the mean step.
    int64_t end() const;
    int64_t mean_step() const;
    bool stands_still() const { return frames > 1 && reached == first; }
};

class Tally final : public PELA::AVMuxer::Listener {
public:
    /// next: takes what passes; has to outlive the object.
    explicit Tally(PELA::AVMuxer::Listener &next)
        : m_next(next)
    {
    }

    /// The streams that are coming: their PIDs and codecs. Without a call nothing is counted.
    void begin(const PELA::MediaBuffer::ContentInfo &content);
    /// The packets are ready-made: they pass, and are watched.
    void watch_packets() { m_f_foreign = m_f_gated = true; }
    const PacketWatch &packets() const { return m_packets; }
    /// The first frames are expected some hours before or after a time, 90 kHz. Without a call they may have any times.
    void expect_around(int64_t time);
    /// Lets nothing of the video, or the audio, pass.
    void drop_video() { m_streams[VIDEO].f_dropped = true; }
    void drop_audio() { m_streams[AUDIO].f_dropped = true; }
    /// Lets video pass from the first picture at the time on, and audio from the frame on that covers it;
    /// 90 kHz.
    void pass_from(int64_t time);

    /// Lets nothing pass, and counts nothing, from the first frame of each stream on that is shown at the time or later;
    /// 90 kHz.
    void pass_until(int64_t time);
    bool has_ended() const { return m_streams[VIDEO].f_ended && m_streams[AUDIO].f_ended; }

    int write(uint8_t *buffer, int size) override
    {
        // Nearly every packet goes on within a frame that passes.
        const bool f_look = size != static_cast<int>(TS_PACKET_SIZE) || m_f_gated ||
                            (buffer[1] & UNIT_START) != 0 || is_suspect(buffer);
        return f_look ? look(buffer, size) : m_next.write(buffer, size);
    }

    const StreamTally &video() const { return m_streams[VIDEO].tally; }
    const StreamTally &audio() const { return m_streams[AUDIO].tally; }
    uint64_t passed() const { return video().passed + audio().passed; }
    /// The earliest time of a frame that passed, and the latest of all, 90 kHz.
    int64_t first_passed() const { return m_first_passed.value_or(0); }
    int64_t reached() const;
    int64_t end() const;  ///< of the last frame, 90 kHz

private:
    static constexpr uint8_t UNIT_START = 0x40;
    enum { VIDEO, AUDIO, STREAMS };

    struct Stream {
        StreamTally tally;
        uint16_t pid = 0;
        bool f_dropped = false;
        bool f_passes = true;    // the present frame
        bool f_damaged = false;  // likewise, and counted
        int64_t time = 0;        // of it
        CutClock clock{PTS_BITS, 0};
        std::optional<int64_t> from, until;
        bool f_ended = false;     // something has come that isn't before until
        int64_t frame_start = 0;  // of the present frame, of audio by its samples
        int64_t shift = 0;        // added to the times of audio that has no clock
    };

    // Eight zeros in the middle of a packet: in H.264 they may be a hole in the file.
    static bool is_suspect(const uint8_t *packet)
    {
        uint64_t middle = 0;
        memcpy(&middle, packet + TS_PACKET_SIZE / 2, sizeof middle);
        return middle == 0;
    }
    int look(uint8_t *buffer, int size);
    void shift_times(const Stream &stream, uint8_t *packet) const;
    void find_hole(Stream &stream, const uint8_t *packet);
    void count_audio(Stream &stream, const uint8_t *frame, size_t size, size_t length);
    static void note_damage(Stream &stream);
    void begin_frame(Stream &stream, uint8_t *packet);
    void count(Stream &stream, int64_t time, const uint8_t *pes, size_t size);
    bool is_wanted(Stream &stream, int64_t time);
    int pass(uint8_t *packet);

    PELA::AVMuxer::Listener &m_next;
    std::array<Stream, STREAMS> m_streams;
    bool m_f_counting = false;
    bool m_f_foreign = false;
    PacketWatch m_packets;
    bool m_f_gated = false;  // something is held back, or may be
    // The last tables that came while nothing had passed: PAT and PMT.
    std::array<std::array<uint8_t, TS_PACKET_SIZE>, 2> m_tables = {};
    std::array<bool, 2> m_f_table = {};
    std::optional<int64_t> m_first_passed;
};

#endif
