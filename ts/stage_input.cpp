#include "stage_input.h"

#include "stage_packets.h"

namespace golt {

Payload payload_of(const uint8_t *packet)
{
    constexpr uint8_t ADAPTATION = 0x20, PAYLOAD = 0x10;
    size_t at = TS_HEAD;
    if ((packet[3] & ADAPTATION) != 0) at += 1 + size_t{packet[TS_HEAD]};
    if ((packet[3] & PAYLOAD) == 0 || at >= TS_SIZE) return {packet, 0};
    return {packet + at, TS_SIZE - at};
}

bool has_plain_pcr(const uint8_t *packet)
{
    constexpr uint8_t CONTROL = 0x30, HAS_PCR = 0x10;
    return (packet[3] & CONTROL) == CONTROL && packet[4] >= 7 && packet[5] == HAS_PCR;
}

bool read_unit_start(const Payload &payload, UnitStart &start)
{
    constexpr size_t HEAD = 9, PTS_SIZE = 5;
    constexpr uint8_t HAS_PTS = 0x80;
    const uint8_t *const pes = payload.bytes;
    if (payload.size < HEAD + PTS_SIZE || pes[0] != 0 || pes[1] != 0 || pes[2] != 1) return false;
    if ((pes[6] & 0xC0) != 0x80 || (pes[7] & HAS_PTS) == 0 || pes[8] < PTS_SIZE ||
        pes[8] > payload.size - HEAD)
        return false;
    const uint8_t *const pts = pes + HEAD;
    const auto bits15 = [](const uint8_t *at) { return (int64_t{at[0]} << 8 | at[1]) >> 1; };
    start.stream_id = pes[3];
    start.pts = (int64_t{pts[0]} >> 1 & 7) << 30 | bits15(pts + 1) << 15 | bits15(pts + 3);
    start.size = HEAD + pes[8];
    start.f_plain = pes[6] == 0x80 && pes[7] == HAS_PTS && pes[8] == PTS_SIZE;
    return true;
}

}  // namespace golt
