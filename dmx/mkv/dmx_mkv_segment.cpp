#include "dmx_mkv_segment.h"

#include <algorithm>
#include <cstdio>

#include "dmx_mkv_ebml.h"
#include "dmx_mkv_ids.h"
#include "dmx_mkv_tracks.h"

using namespace mkv;

namespace {

enum class cues_t { to_come, not_to_be_had };
cues_t goto_cues(const element_t &t_cluster);
SEEK_HEAD_CHILD read_seek(const element_t &t_seek);
bool read_cue_point(const element_t &t_point, CUE_POINT_STRUCT &t_cue);

}  // namespace

int32_t EMBL_Header_Analyze()
{
    uint32_t stage = 0;
    int32_t found = 0;  // a Cluster, or Cues, which lead to some: without them nothing can be read
    element_t t_element;
    while (read_element(t_element) && !is_given_up()) {
        switch (t_element.ID) {
        case ID_EBML:
        case ID_VOID: skip(t_element); break;
        case ID_SEGMENT:
            // Not skipped: its children and the top level are one flat sequence.
            mkvctx.SegInfo.SegmentLen = uint64_t{t_element.Len[0]} << 32 | t_element.Len[1];
            mkvctx.SegInfo.SegFileStartPos = static_cast<uint32_t>(_MKV_FilePos());
            break;
        case ID_SEEK_HEAD: FileEMBL_Check_SeekHead(t_element.Len, t_element.cur_used); break;
        case ID_INFO: FileEMBL_Check_SegmentInfo(t_element.Len, t_element.cur_used); break;
        case ID_TRACKS: FileEMBL_Check_TRACK(t_element.Len, t_element.cur_used); break;
        case ID_CUES:
            found = 1;
            FileEMBL_Check_Cue(t_element.Len, t_element.cur_used);
            if (stage != 0) return found;
            stage = 1;
            break;
        case ID_CLUSTER:
            found = 1;
            if (goto_cues(t_element) == cues_t::not_to_be_had || stage != 0) return found;
            stage = 1;
            break;
        default: printf("error MKV header ID: 0x%08X\n", hex_id(t_element)); skip(t_element);
        }
    }
    return found;
}

int32_t FileEMBL_Check_SeekHead(uint32_t *Len, uint32_t used)
{
    SEGMENT_INFO &t_segment = mkvctx.SegInfo;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_SEEK) {
            printf("error SeekHead ID: 0x%08X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        // Of several entries for one element the last one counts.
        const SEEK_HEAD_CHILD t_seek = read_seek(t_child);
        const uint64_t ui8_pos = t_seek.SeekPostion;
        if (t_seek.SeekID == ID_TRACKS) t_segment.SeekTrackPos = static_cast<uint32_t>(ui8_pos);
        if (t_seek.SeekID == ID_CUES)
            t_segment.SeekCuePos = ui8_pos != 0 ? ui8_pos + t_segment.SegFileStartPos : 0;
    }
    return 1;
}

int32_t FileEMBL_Check_SegmentInfo(uint32_t *Len, uint32_t used)
{
    SEGMENT_INFO &t_segment = mkvctx.SegInfo;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SEGMENT_UID: copy_to(t_segment.SegmentUID, t_child); break;
        case ID_SEGMENT_FILENAME: copy_to(t_segment.SegmentFileName, t_child); break;
        case ID_PREV_UID: copy_to(t_segment.PrevUID, t_child); break;
        case ID_PREV_FILENAME: copy_to(t_segment.PrevFileName, t_child); break;
        case ID_NEXT_UID: copy_to(t_segment.NextUID, t_child); break;
        case ID_NEXT_FILENAME: copy_to(t_segment.NextFileName, t_child); break;
        case ID_TIMECODE_SCALE: t_segment.TimeCodeScale = value32(t_child); break;
        case ID_DURATION: t_segment.Duration = float_value32(t_child); break;
        case ID_TITLE: copy_to(t_segment.SegmentTitle, t_child); break;
        case ID_MUXING_APP: copy_to(t_segment.SegmentMuxingApp, t_child); break;
        case ID_WRITING_APP: copy_to(t_segment.SegmentWritingApp, t_child); break;
        case ID_DATE_UTC: skip(t_child); break;
        default: printf("error SegmentInfo ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

int32_t FileEMBL_Check_Cue(uint32_t *Len, uint32_t used)
{
    uint32_t count = 0;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_CUE_POINT) {
            printf("error cue ID:0x%X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        CUE_POINT_STRUCT t_cue;
        if (!read_cue_point(t_child, t_cue)) continue;
        // A full table goes on in its last slot, so that it still reaches up to the last cue.
        const uint32_t slot = std::min(count, MKV_CUES_MAX - 1);
        mkvctx.Cue[slot] = t_cue;
        count = slot + 1;
    }
    mkvctx.TotalNumOfCues = count;
    return 1;
}

namespace {

// Notes the start of the Cluster whose header has just been read, and moves to the cues.
cues_t goto_cues(const element_t &t_cluster)
{
    mkvctx.ClusterStartPos = static_cast<uint32_t>(_MKV_FilePos()) - t_cluster.cur_used;
    const uint64_t ui8_cues = mkvctx.SegInfo.SeekCuePos;
    if (ui8_cues == 0 || _MKV_Seek(static_cast<int64_t>(ui8_cues)) != 0)
        return cues_t::not_to_be_had;
    return cues_t::to_come;
}

SEEK_HEAD_CHILD read_seek(const element_t &t_seek)
{
    SEEK_HEAD_CHILD t_entry = {};
    child_walk_t t_walk = children_of(t_seek.Len, t_seek.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SEEK_ID: t_entry.SeekID = value32(t_child); break;
        case ID_SEEK_POSITION: t_entry.SeekPostion = FileGetEBMLData(t_child.Len[1]); break;
        default: printf("error SeekHead child ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return t_entry;
}

// The fields that a CuePoint can't do without.
struct cue_fields_t {
    bool f_time;
    bool f_position;
};

void read_cue_track(const element_t &t_positions, CUE_TRACK_POSITION &t_track, cue_fields_t &t_has)
{
    child_walk_t t_walk = children_of(t_positions.Len, t_positions.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CUE_TRACK: t_track.CueTrack = value32(t_child); break;
        case ID_CUE_CLUSTER_POSITION:
            t_track.CueClusterPosition = FileGetEBMLData(t_child.Len[1]);
            t_has.f_position = true;
            break;
        case ID_CUE_BLOCK_NUMBER: t_track.CueBlockNumber = value32(t_child); break;
        default: printf("error cue track ID:0x%X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

// False for a CuePoint that lacks its time or its position.
bool read_cue_point(const element_t &t_point, CUE_POINT_STRUCT &t_cue)
{
    t_cue = {};
    cue_fields_t t_has = {};
    child_walk_t t_walk = children_of(t_point.Len, t_point.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CUE_TIME:
            t_cue.CueTime = value32(t_child);
            t_has.f_time = true;
            break;
        case ID_CUE_TRACK_POSITIONS: read_cue_track(t_child, t_cue.CueTrack, t_has); break;
        default: printf("error cue point ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return t_has.f_time && t_has.f_position;
}

}  // namespace
