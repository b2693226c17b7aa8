#include "dmx_mp4_box.h"

#include <cstdio>

#include "dmx_mp4_i.h"
#include "golt_endian.h"

namespace mp4 {

namespace {

constexpr uint32_t MAX_OVERHANGS = 16;

}  // namespace

bool seek_to(uint64_t ui8_pos, uint32_t ui4_size)
{
    return ui8_pos + ui4_size <= POSITIONS_END &&
           dmx_mp4.pf_seek(dmx_mp4.pv_handle, static_cast<int64_t>(ui8_pos)) == 0;
}

// A source that claims more than it was asked for has delivered nothing.
uint32_t read_next(uint8_t *pb_data, uint32_t ui4_size)
{
    const uint32_t ui4_got = dmx_mp4.pf_read(dmx_mp4.pv_handle, pb_data, ui4_size);
    return ui4_got <= ui4_size ? ui4_got : 0;
}

bool read_at(uint64_t ui8_pos, uint8_t *pb_data, uint32_t ui4_size)
{
    return seek_to(ui8_pos, ui4_size) && read_next(pb_data, ui4_size) == ui4_size;
}

bool read_be32_at(uint64_t ui8_pos, uint32_t *pui4)
{
    uint8_t ab[sizeof *pui4];
    if (!read_at(ui8_pos, ab, sizeof ab)) return false;
    *pui4 = get_be32(ab);
    return true;
}

bool read_be16_at(uint64_t ui8_pos, uint16_t *pui2)
{
    uint8_t ab[sizeof *pui2];
    if (!read_at(ui8_pos, ab, sizeof ab)) return false;
    *pui2 = get_be16(ab);
    return true;
}

bool _dmx_mp4_get_box_header(uint32_t ui4_pos, uint32_t *pui4_size, uint32_t *pui4_type)
{
    uint8_t ab_header[BOX_HEADER_SIZE];
    if (!read_at(ui4_pos, ab_header, BOX_HEADER_SIZE)) return false;
    *pui4_size = get_be32(ab_header);
    *pui4_type = get_be32(ab_header + 4);
    return true;
}

uint32_t _dmx_mp4_goto_box(uint32_t ui4_box_type, uint32_t *pui4_pos, uint32_t ui4_end)
{
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (_dmx_mp4_get_box_header(*pui4_pos, &ui4_size, &ui4_type)) {
        if (ui4_type == ui4_box_type) return ui4_size >= BOX_HEADER_SIZE ? ui4_size : 0;
        if (!step_over(pui4_pos, ui4_size)) return 0;
        if (ui4_end != 0 && *pui4_pos >= ui4_end) return 0;
    }
    return 0;
}

// A size below that of a header leads nowhere: 0 and 1 have meanings that are not handled. Positions
// end at 4 GiB.
bool step_over(uint32_t *pui4_pos, uint32_t ui4_size)
{
    if (ui4_size < BOX_HEADER_SIZE || ui4_size > UINT32_MAX - *pui4_pos) return false;
    *pui4_pos += ui4_size;
    return true;
}

bool can_overhang()
{
    return dmx_mp4.ui4_overhangs < MAX_OVERHANGS;
}

bool take_overhang()
{
    if (!can_overhang()) return false;
    ++dmx_mp4.ui4_overhangs;
    return true;
}

uint32_t held_last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end)
{
    const uint64_t ui8_last = uint64_t{ui4_pos} + ui4_size - 1;
    return ui8_last < ui4_end ? static_cast<uint32_t>(ui8_last) : ui4_end;
}

uint32_t last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end)
{
    const uint32_t ui4_last = held_last_byte(ui4_pos, ui4_size, UINT32_MAX);
    return ui4_last <= ui4_end || take_overhang() ? ui4_last : ui4_end;
}

bool may_reach(uint64_t ui8_pos, uint64_t ui8_size, uint32_t ui4_end)
{
    return ui8_pos + ui8_size <= uint64_t{ui4_end} + 1 || take_overhang();
}

bool has_all_boxes(const char *walker, uint32_t ui4_expected, uint32_t ui4_got)
{
    if (ui4_got == ui4_expected) return true;
    printf("GOLT/mp4: %s: expected 0x%x boxes, got 0x%x\n", walker, ui4_expected, ui4_got);
    return false;
}

}  // namespace mp4
