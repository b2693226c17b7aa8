// Boxes (ISO/IEC 14496-12) of the source that is attached: fields and headers at a position, the
// search for a sibling, and where a box ends. A box is named by the position of its header; an end is
// the position of the last byte of the enclosing box.

#ifndef GOLT_DMX_MP4_BOX_H
#define GOLT_DMX_MP4_BOX_H

#include <cstdint>

namespace mp4 {

constexpr uint32_t BOX_HEADER_SIZE = 8;                // bytes: size and type
constexpr uint64_t POSITIONS_END = uint64_t{1} << 32;  // bytes of a file that can be reached

constexpr uint32_t box_type(const char (&letters)[5])
{
    uint32_t ui4_type = 0;
    for (int i = 0; i < 4; ++i)
        ui4_type = ui4_type << 8 | static_cast<uint8_t>(letters[i]);
    return ui4_type;
}

// Moves to where ui4_size bytes are to be read. False past POSITIONS_END.
bool seek_to(uint64_t ui8_pos, uint32_t ui4_size);

// Reads from the source's position on; the number of bytes that came.
uint32_t read_next(uint8_t *pb_data, uint32_t ui4_size);

// Big-endian fields. One that is cut by the end of the file keeps its value.
bool read_be32_at(uint64_t ui8_pos, uint32_t *pui4);
bool read_be16_at(uint64_t ui8_pos, uint16_t *pui2);

// A seek and a read of ui4_size bytes, all of them or false.
bool read_at(uint64_t ui8_pos, uint8_t *pb_data, uint32_t ui4_size);

// Size and type are set on success only.
bool _dmx_mp4_get_box_header(uint32_t ui4_pos, uint32_t *pui4_size, uint32_t *pui4_type);

// Finds a sibling from *pui4_pos on and returns its size, or 0; ui4_end 0 means no bound.
uint32_t _dmx_mp4_goto_box(uint32_t ui4_box_type, uint32_t *pui4_pos, uint32_t ui4_end);

// Moves past a box. False where no box can follow: the walk of that level then ends, as it does where
// a header can't be read.
bool step_over(uint32_t *pui4_pos, uint32_t ui4_size);

// Boxes and tables may reach past the end of what they lie in: some writers make a size a few bytes
// short or a count one too large, and players play such files. Each of them costs one more walk over
// the rest of the file at most. There are only so many for each start; after that the end holds.
bool can_overhang();
// Counts one; false if there is none left.
bool take_overhang();

// Last byte of a box, at most ui4_end.
uint32_t held_last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end);

// Last byte of a box that is entered, past ui4_end if it can overhang.
uint32_t last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end);

// Whether ui8_size bytes at ui8_pos end by ui4_end, or can overhang.
bool may_reach(uint64_t ui8_pos, uint64_t ui8_size, uint32_t ui4_end);

// Whether a walker has found the boxes that it needs; prints those that it has got if not.
bool has_all_boxes(const char *walker, uint32_t ui4_expected, uint32_t ui4_got);

}  // namespace mp4

#endif
