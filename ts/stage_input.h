// The library's packets, as the stage reads them. It does so for each frame: all of it is inline.

#ifndef GOLT_STAGE_INPUT_H
#define GOLT_STAGE_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "stage_packets.h"

namespace golt {

constexpr int64_t TIME_RANGE = int64_t{1} << 33;  // after which PTS and PCR start again

struct UnitStart {
    uint8_t stream_id = 0;
    int64_t pts = 0;
    size_t size = 0;       // of the PES header
    bool f_plain = false;  // it has a PTS and nothing else
};

struct Payload {
    const uint8_t *bytes;
    size_t size;
};

/// Without header and adaptation field; empty where there is none, or the packet contradicts itself.
inline Payload payload_of(const uint8_t *packet)
{
    size_t at = TS_HEAD;
    if ((packet[3] & bit::ADAPTATION) != 0) at += 1 + size_t{packet[TS_HEAD]};
    if ((packet[3] & bit::PAYLOAD) == 0 || at >= TS_SIZE) return {packet, 0};
    return {packet + at, TS_SIZE - at};
}

/// Whether its adaptation field has a PCR and nothing else, as the library writes it where a unit begins.
inline bool has_plain_pcr(const uint8_t *packet)
{
    constexpr uint8_t CONTROL = bit::ADAPTATION | bit::PAYLOAD;
    return (packet[3] & CONTROL) == CONTROL && packet[4] >= 7 && packet[5] == bit::HAS_PCR;
}

/// The header of a PES packet, which has to be whole, with a PTS. False: that is none.
inline bool read_unit_start(Payload payload, UnitStart &start)
{
    constexpr size_t HEAD = 9, PTS_SIZE = 5;
    constexpr uint8_t HAS_PTS = 0x80;
    static constexpr uint8_t START_CODE[] = {0, 0, 1};
    static constexpr uint8_t PLAIN[] = {0x80, HAS_PTS, PTS_SIZE};  // flags, and the rest's length
    const uint8_t *const pes = payload.bytes;
    if (payload.size < HEAD + PTS_SIZE || memcmp(pes, START_CODE, sizeof START_CODE) != 0)
        return false;
    start.f_plain = memcmp(pes + 6, PLAIN, sizeof PLAIN) == 0;
    if (!start.f_plain && ((pes[6] & 0xC0) != 0x80 || (pes[7] & HAS_PTS) == 0 ||
                           pes[8] < PTS_SIZE || pes[8] > payload.size - HEAD))
        return false;
    const uint8_t *const pts = pes + HEAD;
    const uint32_t low = be32(pts + 1);  // 15 bits and 15 bits, each with a marker bit after it
    start.stream_id = pes[3];
    start.pts = int64_t{pts[0] >> 1 & 7} << 30 | (low >> 17) << 15 | (low >> 1 & 0x7FFF);
    start.size = HEAD + pes[8];
    return true;
}

/// Times of 33 bits as such that go on from those before. Two lanes begin together: near one another, even where one of
/// them has started again already.
class TimeExtension {
public:
    /// Near which time the first one is.
    void begin(int64_t time)
    {
        m_f_begun = true;
        m_last[0] = m_last[1] = time;
    }
    int64_t extend(size_t lane, int64_t pts)
    {
        if (!m_f_begun) begin(pts);
        const int64_t earliest = m_last[lane] - TIME_RANGE / 2;
        const uint64_t ahead = static_cast<uint64_t>(pts) - static_cast<uint64_t>(earliest);
        return m_last[lane] = earliest + static_cast<int64_t>(ahead % TIME_RANGE);
    }

private:
    bool m_f_begun = false;
    int64_t m_last[2] = {};
};

}  // namespace golt

#endif
