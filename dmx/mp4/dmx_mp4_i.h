// The records and the state of the MP4 demuxer, for its own source files only.

#ifndef GOLT_DMX_MP4_I_H
#define GOLT_DMX_MP4_I_H

#include "golt_common.h"

namespace mp4 {

// What video and audio tracks have in common. The tables are blocks of the general heap that the
// track owns.
struct s_track {
    uint32_t ui4_track_id;  // 0: there is no such track
    uint32_t ui4_format;    // one of GOLT_codecs_t
    uint32_t ui4_num_samples;
    uint32_t ui4_sample_size;       // bytes of every sample; 0: they differ
    uint32_t *pui4_sample_sizes;    // bytes; null when all are equal
    uint32_t *pui4_sample_offsets;  // positions in the file
    uint32_t ui4_num_sync_samples;
    uint32_t *pui4_sync_samples;  // indices, counted from 0
    uint32_t ui4_duration;        // ms
    uint32_t *pui4_ts;            // ms; null when the interval is constant
    double db_interval;           // ms per sample
    uint32_t ui4_sample_idx;      // the next sample to deliver
    // Entries of the tables. Those of one track can come from two, when a later one of its kind
    // replaces some.
    uint32_t ui4_num_sizes;
    uint32_t ui4_num_offsets;
    uint32_t ui4_num_ts;
    uint32_t ui4_end;  // first sample that can't be delivered; worked out when all tables are there
};

struct s_st_v {
    s_track tr;
    uint16_t ui2_width;
    uint16_t ui2_height;
    uint32_t ui4_pix_ar_nr;
    uint32_t ui4_pix_ar_dr;
    uint8_t *pb_hdr;  // "avcC" from its count of sequence parameter sets on
    bool b_header_sent;
    uint32_t ui4_hdr_block_size;  // bytes at pb_hdr
};

struct s_st_a {
    s_track tr;
    uint32_t ui4_sfreq;  // Hz
    uint32_t ui2_channels;
};

struct dmx_mp4_t {
    tpf_seek pf_seek;
    tpf_read pf_read;
    void *pv_handle;
    s_st_v st_v;
    s_st_a st_a;
    uint32_t ui4_overhangs;       // at most MAX_OVERHANGS
    uint32_t ui4_unread_entries;  // at most UNREAD_ENTRIES
};

extern dmx_mp4_t dmx_mp4;

// Kinds of tracks, and the bits of those that are complete.
enum : uint32_t { TRACK_UNKNOWN = 0, TRACK_VIDEO = 1, TRACK_AUDIO = 2, BOTH_TRACKS = 3 };

// What is known while one "trak" is open.
struct s_parse_ctx {
    uint32_t *pui4_tracks;  // kinds that have been completed
    s_track *p_tr;          // null until "hdlr" has named the kind
    uint32_t ui4_track;     // TRACK_UNKNOWN until then
    uint32_t ui4_tscale;    // ticks per second
    uint32_t ui4_track_id;
};

}  // namespace mp4

#endif
