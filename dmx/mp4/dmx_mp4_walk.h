// The walk from the top of the file down to the sample tables. It picks one video and one audio
// track at most.

#ifndef GOLT_DMX_MP4_WALK_H
#define GOLT_DMX_MP4_WALK_H

namespace mp4 {

// Fills the track records of the context. False without "ftyp" or "moov", and where the media data
// can't be gone back to.
bool _dmx_mp4_parse();

}  // namespace mp4

#endif
