// Takes a segment out of a transport stream as the stage writes it: from one key picture up to the next
// one, with tables first, and with counters that go on from segment to segment.

#ifndef HOST_HLS_CUTTER_H
#define HOST_HLS_CUTTER_H

#include <array>
#include <optional>
#include <vector>

#include "libgolt.h"
#include "ts_packet.h"

class Cutter final : public PELA::AVMuxer::Listener {
public:
    static constexpr uint16_t VIDEO_PID = 0x100, AUDIO_PID = 0x101;

    /// PTS of the first picture, or with audio alone the first frame, of the segment and of the next one;
    /// 90 kHz. None: the stream's begin, its end.
    struct Range {
        std::optional<int64_t> from, to;
        bool f_video = false;
    };

    /// out: has to outlive the object. most: bytes that the segment may have.
    Cutter(const Range &range, std::vector<uint8_t> &out, size_t most);

    int write(uint8_t *buffer, int size) override;
    /// The stream has ended: what is left belongs to the segment.
    void finish() { keep_waiting(); }

    bool is_done() const { return m_f_done; }  ///< the next segment has begun
    bool is_full() const { return m_f_full; }
    /// Pictures, or with audio alone frames, that came before the segment.
    uint64_t units_before() const { return m_units_before; }
    /// PTS of the first picture in the stream, and of the first frame of audio.
    std::optional<int64_t> first_video() const { return m_first[0]; }
    std::optional<int64_t> first_audio() const { return m_first[1]; }

private:
    using Packet = std::array<uint8_t, TS_PACKET_SIZE>;

    void take(const uint8_t *packet);
    void take_start(const uint8_t *packet, bool f_video);
    void begin(const uint8_t *packet);
    void note_clock(const uint8_t *packet);
    void keep_waiting();
    void keep(const uint8_t *packet);

    const Range m_range;
    std::vector<uint8_t> &m_out;
    const size_t m_most;
    bool m_f_begun;
    bool m_f_done = false;
    bool m_f_full = false;
    uint64_t m_units_before = 0;
    std::optional<int64_t> m_first[2];
    std::array<Packet, 2> m_tables = {};  // the last PAT and PMT
    bool m_f_table[2] = {};
    Packet m_clock = {};  // the last PCR, in a packet of its own
    bool m_f_clock = false;
    std::vector<Packet> m_waiting;  // tables that belong to what comes after them
};

/// Numbers the packets of a segment so that those of each PID have the continuity counters from 0 to 15
/// over and over, and makes their number a multiple of 16. Segments fit together then, whatever is in
/// them. A few packets get less payload for that; PAT and PMT come once more at the end.
void align_counters(std::vector<uint8_t> &segment);

#endif
