// Finds the transport packets in the bytes of a file: 188 bytes each (ISO/IEC 13818-1), the same with a stamp of 4
// bytes before them, or with 16 check bytes after them. Where bytes are missing or too many, it finds the next ones.

#ifndef TS_TS_FRAMING_H
#define TS_TS_FRAMING_H

#include <cstddef>
#include <cstdint>
#include <vector>

class TsPackets {
public:
    /// packet: TS_PACKET_SIZE bytes; its sync byte may be wrong. offset: of them in the file.
    virtual void on_packet(const uint8_t *packet, uint64_t offset) = 0;
    /// Bytes that belong to no whole packet.
    virtual void on_lost(uint64_t offset, uint64_t size) = 0;

protected:
    ~TsPackets() = default;
};

/// Keeps some packets until it knows how they go on, and none of them longer.
class TsFraming {
public:
    /// packets: has to outlive the object.
    explicit TsFraming(TsPackets &packets)
        : m_packets(packets)
    {
    }

    /// Takes the next bytes of the file, in pieces of any size.
    void feed(const uint8_t *bytes, size_t size);
    /// To be called when the file ends.
    void finish();

    /// 188, 192 or 204; 0: none has been found.
    size_t packet_size() const { return m_size; }

private:
    void work(bool f_end);
    bool find_first(bool f_end);
    bool take_one(bool f_end);
    bool find_next(bool f_end);
    size_t left() const { return m_held.size() - m_at; }
    bool is_sync(size_t at) const;
    bool goes_on(size_t at, bool f_end) const;
    size_t skip_to_sync(size_t sync_at);
    void skip(size_t size);
    void report_lost();

    TsPackets &m_packets;
    std::vector<uint8_t> m_held;
    size_t m_at = 0;       // in m_held, of what hasn't been taken
    uint64_t m_begin = 0;  // offset in the file of m_held
    size_t m_size = 0;     // of a packet, with what is around it
    size_t m_sync_at = 0;  // of its sync byte, in it
    uint64_t m_lost = 0;   // bytes before m_at
    bool m_f_searching = false;
};

#endif
