// An index for MP4 files by which the library delivers frames in order of time. Its own order goes by the number of a
// frame times the mean interval of its track. Where the picture rate varies, or a track has a gap or begins late, it comes
// far from the order of time. The index that is made here has fillers between the samples: samples without
// bytes, so that each of the others has the number that belongs to its time.

#ifndef HOST_OUTLINE_EVEN_INDEX_H
#define HOST_OUTLINE_EVEN_INDEX_H

#include <array>

#include "outline.h"
#include "selection.h"

/// How far apart the library's order may bring audio and video; ms.
constexpr int64_t MOST_APART_MS = 500;

struct EvenIndex {
    /// "ftyp", "moov" and the header of an "mdat" that has the whole file in it: what is to be read before the file.
    std::vector<uint8_t> head;
    /// Times of fillers as the library tells them to a host, ticks of 90 kHz; no frame of the file has them.
    std::array<uint32_t, 2> filler_times = {};
    /// Of the video: the numbers of its key samples, from 0, and how far apart numbers are, ms.
    std::vector<uint32_t> keys;
    double interval = 0;
    /// By how much one of the tracks begins after the other, ms.
    double start_apart = 0;

    bool is_filler(uint32_t time) const
    {
        return time == filler_times[0] || time == filler_times[1];
    }
};

/// None where it isn't needed, by what the outline tells: the library's order brings audio and video no more than half a
/// second apart. None also where the file has to stay as it is: it is cut, its tables are damaged or too large, or the
/// index would be.
std::optional<EvenIndex> make_even_index(ByteSource &source, const Outline &outline,
                                         const Selection &selection);

#endif
