// Which sort of transport stream a file is: packets of 188 bytes (ISO/IEC 13818-1), the same with a stamp
// of 4 bytes before them, or with 16 check bytes after them.

#include "parsers.h"

namespace outline {

namespace {

constexpr uint8_t SYNC_BYTE = 0x47;
constexpr uint32_t PACKETS_SEEN = 5;
constexpr uint32_t LARGEST_PACKET = 204;

bool is_aligned(Reader &reader, uint64_t first, uint32_t step);

}  // namespace

void read_transport_stream(Reader &reader, Outline &outline)
{
    // At its own place first; a recording may begin in the middle of a packet.
    static const struct {
        uint32_t size, sync_at;
    } SORTS[] = {{192, 4}, {188, 0}, {204, 0}};
    for (uint64_t skipped = 0; skipped < LARGEST_PACKET; ++skipped) {
        for (const auto &sort : SORTS) {
            if (!is_aligned(reader, skipped + sort.sync_at, sort.size)) continue;
            outline.container = Container::TRANSPORT_STREAM;
            outline.transport = {sort.size, skipped};
            return;
        }
    }
}

namespace {

bool is_aligned(Reader &reader, uint64_t first, uint32_t step)
{
    for (uint32_t i = 0; i < PACKETS_SEEN; ++i) {
        Stretch at(reader, first + uint64_t{i} * step, reader.size());
        const bool f_end = at.left() == 0 && i >= 2;  // a file of few packets
        if (f_end) return true;
        if (at.u8() != SYNC_BYTE) return false;
    }
    return true;
}

}  // namespace

}  // namespace outline
