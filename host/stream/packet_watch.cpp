#include "packet_watch.h"

#include <algorithm>

#include "byte_view.h"
#include "ts_packet.h"

void PacketWatch::take(const uint8_t *bytes)
{
    constexpr uint32_t START_CODE = 1;
    constexpr size_t PES_PREFIX = 6;
    const TsPacket packet(bytes);
    if (!packet.has_payload() || packet.is_scrambled()) return;
    Stream *stream = stream_of(packet.pid());
    if (stream == nullptr) return;
    const size_t at = packet.payload_at();
    const size_t size = TS_PACKET_SIZE - at;
    if (!packet.is_start()) {
        stream->left -= std::min(stream->left, size);
        return;
    }
    ByteView pes{bytes + at, size};
    const bool f_pes = pes.get(3) == START_CODE;
    pes.take(1);
    const size_t length = static_cast<size_t>(pes.get(2));
    const bool f_told = f_pes && !pes.f_short && length != 0;
    stream->left = f_told ? length + PES_PREFIX - std::min(length + PES_PREFIX, size) : 0;
}

uint64_t PacketWatch::missing() const
{
    uint64_t sum = 0;
    for (const Stream &stream : m_streams)
        sum += stream.left;
    return sum;
}

PacketWatch::Stream *PacketWatch::stream_of(uint16_t pid)
{
    constexpr size_t MOST_STREAMS = 64;
    if (m_last < m_streams.size() && m_streams[m_last].pid == pid) return &m_streams[m_last];
    for (m_last = 0; m_last < m_streams.size(); ++m_last)
        if (m_streams[m_last].pid == pid) return &m_streams[m_last];
    if (m_streams.size() == MOST_STREAMS) return nullptr;
    m_streams.push_back({pid, 0});
    return &m_streams.back();
}
