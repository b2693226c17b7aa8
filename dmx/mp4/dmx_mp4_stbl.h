// The sample tables of a track, made flat: one array each for the offsets, sizes and times of its
// samples.

#ifndef GOLT_DMX_MP4_STBL_H
#define GOLT_DMX_MP4_STBL_H

#include "dmx_mp4_i.h"

namespace mp4 {

// The children of "stbl" from ui4_pos on go to the track that is open. True when it is complete; of
// one that isn't, what its boxes have set stays.
bool _dmx_mp4_parse_stbl(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);

}  // namespace mp4

#endif
