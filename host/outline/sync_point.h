// Key pictures: where all of them are, and where the stream of a time begins, which is at the last one that
// isn't after it.

#ifndef HOST_OUTLINE_SYNC_POINT_H
#define HOST_OUTLINE_SYNC_POINT_H

#include <functional>

#include "even_index.h"
#include "outline.h"
#include "selection.h"

struct SyncPoint {
    /// What the library is to be asked for so that it comes to the point or to one before it, in its own
    /// milliseconds. None: the file is read from its start.
    std::optional<uint32_t> ask_ms;
    /// From which time on frames are wanted, in the library's milliseconds. With video it is that of the
    /// key picture.
    int64_t from_ms = 0;
};

/// Whether the library may bring one of audio and video to a time a good while after the other. even_index: by which it
/// reads the file; null: by its own.
bool are_apart(const Outline &outline, const Selection &selection, const EvenIndex *even_index);

/// time_ms: in milliseconds of the presentation. f_remote: the file is asked as little as can be. even_index: by which
/// the library reads it; null: by its own. None: which pictures are independent can't be found out.
std::optional<SyncPoint> find_sync_point(ByteSource &source, const Outline &outline,
                                         const Selection &selection, uint32_t time_ms,
                                         bool f_remote, const EvenIndex *even_index);

/// Shows the times of all key pictures of the video that is taken, in the library's milliseconds and in
/// the order of the file. Reads a little of each block of Matroska. False: there may be others, too.
bool list_key_pictures(ByteSource &source, const Outline &outline, const Selection &selection,
                       const std::function<void(int64_t time_ms)> &take);

#endif
