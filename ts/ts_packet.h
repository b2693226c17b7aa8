// A transport packet as ISO/IEC 13818-1 lays it out: a header of four bytes, an adaptation field,
// and the payload.

#ifndef TS_TS_PACKET_H
#define TS_TS_PACKET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

constexpr size_t TS_PACKET_SIZE = 188;
constexpr size_t TS_HEADER_SIZE = 4;
constexpr uint8_t TS_SYNC_BYTE = 0x47;

/// Looks at the bytes of a packet, which stay the caller's.
class TsPacket {
public:
    /// bytes: TS_PACKET_SIZE of them.
    explicit TsPacket(const uint8_t *bytes)
        : m_bytes(bytes)
    {
    }

    const uint8_t *bytes() const { return m_bytes; }
    bool has_sync_byte() const { return m_bytes[0] == TS_SYNC_BYTE; }
    bool is_damaged() const { return (m_bytes[1] & 0x80) != 0; }  ///< transport_error_indicator
    bool is_start() const { return (m_bytes[1] & 0x40) != 0; }    ///< payload_unit_start_indicator
    uint16_t pid() const { return static_cast<uint16_t>((m_bytes[1] & 0x1F) << 8 | m_bytes[2]); }
    bool is_scrambled() const { return (m_bytes[3] & 0xC0) != 0; }
    bool has_adaptation_field() const { return (m_bytes[3] & 0x20) != 0; }
    bool has_payload() const { return (m_bytes[3] & 0x10) != 0; }
    int counter() const { return m_bytes[3] & 0x0F; }  ///< continuity_counter
    /// Where the payload begins by the adaptation field's length, TS_PACKET_SIZE at most.
    size_t payload_at() const
    {
        if (!has_adaptation_field()) return TS_HEADER_SIZE;
        return std::min(TS_HEADER_SIZE + 1 + m_bytes[TS_HEADER_SIZE], TS_PACKET_SIZE);
    }

private:
    const uint8_t *m_bytes;
};

#endif
