// Sizes of the frames of one block (RFC 9559, lacing). Private to the Matroska demuxer.

#ifndef GOLT_DMX_MKV_LACING_H
#define GOLT_DMX_MKV_LACING_H

#include <cstdint>

namespace mkv {

constexpr uint32_t LACED_COUNTS = 256;  // numbers that a lace's frame count can take
constexpr uint8_t LACING_MASK = 0x06;   // of the block's flags

enum lacing_kind_t : int { LACING_NONE = 0, LACING_XIPH = 1, LACING_FIXED = 2, LACING_EBML = 3 };

struct lacing_t {
    lacing_kind_t kind;
    uint32_t count;  // frames
    bool f_valid;    // the sizes known so far can be right
    uint32_t frame_data_num[LACED_COUNTS];
};

/// The two halves for a block that is laced.
void read_lace(uint32_t BlockLen, lacing_t &t_lacing);
void finish_lace(uint32_t DataLen, lacing_t &t_lacing);

/// Reads the number of frames and their sizes, as far as they are in the block of BlockLen bytes,
/// starting after its flags. Most blocks have none: they are one frame.
inline void read_lacing(uint8_t ui1_flags, uint32_t BlockLen, lacing_t &t_lacing)
{
    t_lacing.kind = static_cast<lacing_kind_t>((ui1_flags & LACING_MASK) >> 1);
    t_lacing.count = 1;
    t_lacing.f_valid = true;
    if (t_lacing.kind != LACING_NONE) read_lace(BlockLen, t_lacing);
}

/// Works out what the length of the payload decides.
inline void finish_lacing(uint32_t DataLen, lacing_t &t_lacing)
{
    if (t_lacing.kind == LACING_NONE)
        t_lacing.frame_data_num[0] = DataLen;
    else
        finish_lace(DataLen, t_lacing);
}

}  // namespace mkv

#endif
