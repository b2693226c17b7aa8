#include "dmx_mkv_lacing.h"

#include <algorithm>

#include "dmx_mkv_ebml.h"
#include "dmx_mkv_frame.h"

using namespace mkv;

namespace {

// The sizes are read to their end also where they can't be right: the payload follows them, and a video
// block takes it whole. Only those that run past the block, after which there is none, may end early:
// BlockLen is counted from here, a few bytes too late, so that all of a block's own are read.

// Xiph: each size is the sum of bytes up to and including the first one that isn't 255.
void read_xiph_sizes(uint32_t BlockLen, lacing_t &t_lacing)
{
    const int64_t i8_beyond = position_after(BlockLen);
    uint64_t ui8_sum = 0;
    for (uint32_t i = 0; i + 1 < t_lacing.count && _MKV_FilePos() < i8_beyond; ++i) {
        uint8_t ui1_part = 0;
        uint64_t ui8_size = 0;
        do {
            ui1_part = 0;
            get_bytes(&ui1_part, 1);
            ui8_size += ui1_part;
        } while (ui1_part == 0xFF && _MKV_FilePos() < i8_beyond);
        t_lacing.frame_data_num[i] = static_cast<uint32_t>(ui8_size);
        ui8_sum += ui8_size;
    }
    t_lacing.f_valid = ui8_sum <= BlockLen;
}

// EBML: a size, then signed differences. The first size is there also for a single frame.
void read_ebml_sizes(uint32_t BlockLen, lacing_t &t_lacing)
{
    const int64_t i8_beyond = position_after(BlockLen);
    uint32_t ui4_first = 0;
    FileGetVint(&ui4_first);
    int64_t i8_size = ui4_first;
    t_lacing.frame_data_num[0] = ui4_first;
    for (uint32_t i = 1; i + 1 < t_lacing.count && _MKV_FilePos() < i8_beyond; ++i) {
        int32_t i4_difference = 0;
        if (FileGetSVint(&i4_difference) == 0) t_lacing.f_valid = false;
        i8_size += i4_difference;
        if (i8_size < 0 || i8_size > BlockLen) t_lacing.f_valid = false;
        t_lacing.frame_data_num[i] = static_cast<uint32_t>(i8_size);
    }
}

}  // namespace

void mkv::read_lace(uint32_t BlockLen, lacing_t &t_lacing)
{
    uint8_t ui1_more = 0;
    get_bytes(&ui1_more, 1);
    t_lacing.count = ui1_more + 1u;
    if (t_lacing.kind == LACING_XIPH) read_xiph_sizes(BlockLen, t_lacing);
    if (t_lacing.kind == LACING_EBML) read_ebml_sizes(BlockLen, t_lacing);
}

void mkv::finish_lace(uint32_t DataLen, lacing_t &t_lacing)
{
    const uint32_t count = t_lacing.count;
    uint32_t *const pui4_sizes = t_lacing.frame_data_num;
    if (t_lacing.kind == LACING_FIXED) {
        std::fill(pui4_sizes, pui4_sizes + count, DataLen / count);
    } else if (t_lacing.f_valid) {
        // The size of a single frame in EBML lacing is the one that was read, whatever the block's.
        const bool f_last_read = t_lacing.kind == LACING_EBML && count == 1;
        const uint32_t known = f_last_read ? count : count - 1;
        uint64_t ui8_sum = 0;
        for (uint32_t i = 0; i < known; ++i)
            ui8_sum += pui4_sizes[i];
        t_lacing.f_valid = ui8_sum <= (f_last_read ? PAYLOAD_MAX : DataLen);
        if (!f_last_read) pui4_sizes[count - 1] = DataLen - static_cast<uint32_t>(ui8_sum);
    }
    if (count > MKV_LACED_FRAMES_MAX) t_lacing.f_valid = false;
}
