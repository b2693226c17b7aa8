#include "ts_watch.h"

#include "byte_view.h"
#include "ts_packet.h"

// ISO/IEC 13818-1: the PES header begins after the adaptation field, the PTS in its tenth byte.
void TsWatch::look(const uint8_t *packet)
{
    constexpr uint8_t PES_START[] = {0, 0, 1};
    constexpr size_t FLAGS_AT = 7, PTS_AT = 9;
    const size_t pes = TsPacket(packet).payload_at();
    if (pes + PTS_AT + PTS_FIELD_SIZE > TS_PACKET_SIZE) return;
    const uint8_t *header = packet + pes;
    const bool f_pts = (header[FLAGS_AT] & 0x80) != 0;
    if (!std::equal(PES_START, PES_START + sizeof PES_START, header) || !f_pts) return;
    const uint64_t time =
        time_of_field(ByteView{header + PTS_AT, PTS_FIELD_SIZE}.get(PTS_FIELD_SIZE));
    if (m_frames == 0) m_first = time;
    if (time != m_first) m_wanted = NOTHING;
    ++m_frames;
}
