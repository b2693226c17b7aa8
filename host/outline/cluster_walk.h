// A walk over the clusters of a Matroska file, from block to block, which passes over what is in them.
// It finds where the file is damaged or cut, how far each track goes, and its key pictures. Reads a
// little of each block, so it is for where there is a doubt, or no index.

#ifndef HOST_OUTLINE_CLUSTER_WALK_H
#define HOST_OUTLINE_CLUSTER_WALK_H

#include <functional>
#include <map>

#include "outline.h"

struct BlockSpan {
    uint64_t blocks = 0;
    int64_t first = INT64_MAX;  ///< time of the first and the last block, in ticks
    int64_t last = INT64_MIN;
};

struct ClusterWalk {
    bool f_whole = false;  ///< the clusters were walked to their end, and nothing was wrong
    std::optional<uint64_t> damaged_at;  ///< offset of the first element that can't be
    std::optional<uint64_t> cut_in;      ///< offset of a cluster that goes on after the file's end
    std::optional<uint64_t> parted_at;   ///< offset of an element between clusters that is none
    std::map<uint64_t, BlockSpan> tracks;  ///< by TrackNumber
    std::optional<int64_t>
        key;  ///< of the track asked for: the last one not after the time asked for
};

struct BlockSeen {
    uint64_t track;  ///< TrackNumber
    int64_t time;    ///< in ticks
    bool f_key;
    uint64_t cluster;  ///< offset of the one that it is in
    uint64_t frames;   ///< by its lacing
};

struct WalkOptions {
    uint32_t most_loads = 1u << 22;  ///< reads of the source
    uint64_t key_track = 0;          ///< TrackNumber of the track whose key pictures are wanted
    int64_t key_until =
        INT64_MIN;  ///< in ticks; the walk ends where a cluster begins after it, unless it is INT64_MIN
    std::function<bool(const BlockSeen &)> on_block = nullptr;  ///< false ends the walk
    uint64_t from = 0;  ///< offset of the cluster where it begins; 0: the first one
};

ClusterWalk walk_clusters(ByteSource &source, const Outline &outline,
                          const WalkOptions &options = {});

#endif
