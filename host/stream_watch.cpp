#include "stream_watch.h"

// ISO/IEC 13818-1: the PES header begins behind the adaptation field, the PTS in its tenth byte.
void StreamWatch::look(const uint8_t *packet)
{
    constexpr int HEADER_SIZE = 4, PTS_AT = 9, PTS_SIZE = 5, PACKET_SIZE = 188;
    const bool has_adaptation_field = (packet[3] & 0x20) != 0;
    const int pes = HEADER_SIZE + (has_adaptation_field ? 1 + packet[HEADER_SIZE] : 0);
    if (pes + PTS_AT + PTS_SIZE > PACKET_SIZE) return;
    const uint8_t *header = packet + pes;
    const bool has_pts = (header[7] & 0x80) != 0;
    if (header[0] != 0 || header[1] != 0 || header[2] != 1 || !has_pts) return;
    const uint8_t *pts = header + PTS_AT;
    // 3, 15 and 15 bits, each with a marker bit behind it.
    const auto bits15 = [](const uint8_t *at) { return (uint64_t{at[0]} << 8 | at[1]) >> 1; };
    const uint64_t high = (uint64_t{pts[0]} >> 1) & 7;
    const uint64_t time = high << 30 | bits15(pts + 1) << 15 | bits15(pts + 3);
    if (m_frames == 0) m_first = time;
    if (time != m_first) m_wanted = NOTHING;
    ++m_frames;
}
