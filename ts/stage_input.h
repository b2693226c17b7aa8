// The library's packets, as the stage reads them.

#ifndef GOLT_STAGE_INPUT_H
#define GOLT_STAGE_INPUT_H

#include <cstddef>
#include <cstdint>

namespace golt {

constexpr int64_t TIME_RANGE = int64_t{1} << 33;  // after which PTS and PCR start again

struct UnitStart {
    uint8_t stream_id;
    int64_t pts;
    size_t size;   // of the PES header
    bool f_plain;  // it has a PTS and nothing else
};

struct Payload {
    const uint8_t *bytes;
    size_t size;
};

/// Without header and adaptation field; empty where there is none, or the packet contradicts itself.
Payload payload_of(const uint8_t *packet);
/// Whether its adaptation field has a PCR and nothing else, as the library writes it where a unit begins.
bool has_plain_pcr(const uint8_t *packet);
/// The header of a PES packet, which has to be whole, with a PTS. False: that is none.
bool read_unit_start(const Payload &payload, UnitStart &start);

// A time of 33 bits as one that goes on from the time before.
class TimeExtension {
public:
    int64_t extend(int64_t pts)
    {
        if (!m_f_begun) m_last = pts;
        m_f_begun = true;
        int64_t step = (pts - m_last) % TIME_RANGE;
        if (step > TIME_RANGE / 2) step -= TIME_RANGE;
        if (step < -TIME_RANGE / 2) step += TIME_RANGE;
        return m_last += step;
    }

private:
    bool m_f_begun = false;
    int64_t m_last = 0;
};

}  // namespace golt

#endif
