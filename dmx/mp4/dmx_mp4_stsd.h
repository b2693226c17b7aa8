// The sample description of a track: its codec, what the remuxer has to know of it, and the
// parameter sets of H.264.

#ifndef GOLT_DMX_MP4_STSD_H
#define GOLT_DMX_MP4_STSD_H

#include "dmx_mp4_i.h"

namespace mp4 {

// The first sample entry of "stsd", at ui4_pos. The kind of the track decides how it is read. False if
// the track can't be carried.
bool _dmx_mp4_parse_stsd(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);

}  // namespace mp4

#endif
