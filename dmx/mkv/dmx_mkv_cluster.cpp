#include "dmx_mkv_cluster.h"

#include <cstdio>

#include "dmx_mkv_ebml.h"
#include "dmx_mkv_frame.h"
#include "dmx_mkv_ids.h"
#include "dmx_mkv_lacing.h"

using namespace mkv;

namespace {

// The block that a cluster pass has found.
struct block_place_t {
    bool f_found;
    bool f_group_goes_on;  // it lies in a BlockGroup that has more after it
    uint32_t BlockLen;
    int64_t i8_group_end;
};

// A block without its payload.
struct block_t {
    uint32_t ui4_track;
    int32_t i4_time;  // relative to the Cluster's
    lacing_t t_lacing;
    uint32_t DataLen;  // bytes of the payload
};

bool open_cluster();
void read_cluster_child(const element_t &t_child, block_place_t &t_block);
void walk_block_group(const element_t &t_group, block_place_t &t_block);
enum class block_header_t { VALID, NO_TRACK, TOO_LONG };
block_header_t read_block_header(uint32_t BlockLen, block_t &t_block);
bool read_payload(const block_t &t_block, bool f_audio);
bool read_audio_block(uint32_t CurTimeCode, const lacing_t &t_lacing);
bool read_video_block(uint32_t CurTimeCode, uint32_t DataLen);

bool is_frame_pending()
{
    return mkvctx.SegInfo.AvailAudioFrameNo != 0 || mkvctx.SegInfo.AvailVideoFrameNo != 0;
}

}  // namespace

uint32_t AV_buffer_fill()
{
    mkvctx.f_ended = false;
    while (!is_frame_pending()) {
        if (mkvctx.f_ended) return 0;
        if (mkvctx.ClusterData.Initialized == 0 && !open_cluster()) return 0;
        EMBL_Check_Cluster_frame();
    }
    return 1;
}

uint32_t EMBL_Check_Cluster_frame()
{
    CLUSTER_DATA_ANALYZE &t_data = mkvctx.ClusterData;
    block_place_t t_block = {};
    child_walk_t t_walk(0, t_data.ClusterLenRest);
    element_t t_child;
    while (!t_block.f_found && t_walk.next(t_child))
        read_cluster_child(t_child, t_block);

    if (t_block.f_found) BlockDataAnalyze(t_block.BlockLen);
    if (t_block.f_group_goes_on) _MKV_Seek(t_block.i8_group_end);

    // Wraps when the children go past the Cluster's end. Not so for a Cluster of unknown size,
    // whose 32 bits are all ones: it goes on beyond 4 GiB.
    t_data.ClusterLenRest -= static_cast<uint32_t>(t_walk.sum());
    if (t_data.ClusterLenRest == 0 || t_data.ClusterLenRest > t_data.ClusterLen)
        t_data.Initialized = 0;
    return 1;
}

int32_t BlockDataAnalyze(uint32_t BlockLen)
{
    const int64_t i8_end = position_after(BlockLen);
    block_t t_block;
    const block_header_t header = read_block_header(BlockLen, t_block);
    if (header == block_header_t::NO_TRACK) return 0;

    // The audio track comes first also where both have the same number.
    const bool f_audio = t_block.ui4_track == mkvctx.AudioFrameInfo->TrackNumber;
    const bool f_video = !f_audio && t_block.ui4_track == mkvctx.VideoFrameInfo->TrackNumber;
    // Sizes that can't be right leave no frame to trust; a video block has one frame in any case.
    const bool f_wanted = (f_audio && t_block.t_lacing.f_valid) || f_video;
    if (header == block_header_t::TOO_LONG || !f_wanted || t_block.DataLen > PAYLOAD_MAX) {
        _MKV_Seek(i8_end);
        return 1;
    }
    // The result is fixed. The end of input or memory, also within the header, is noted in the
    // context for the pump.
    if (!mkvctx.f_ended && read_payload(t_block, f_audio)) return 1;
    mkvctx.f_ended = true;
    // If more comes, reading goes on after the block, provided that this place can be reached.
    if (_MKV_Seek(i8_end) != 0) mkvctx.ClusterData.Initialized = 0;
    return 1;
}

namespace {

// False for any element but a Cluster: the stream ends there.
bool open_cluster()
{
    element_t t_element;
    if (!read_element(t_element) || t_element.ID != ID_CLUSTER) return false;
    mkvctx.ClusterData.Initialized = 1;
    mkvctx.ClusterData.ClusterLen = t_element.Len[1];
    mkvctx.ClusterData.ClusterLenRest = t_element.Len[1];
    return true;
}

void read_cluster_child(const element_t &t_child, block_place_t &t_block)
{
    switch (t_child.ID) {
    case ID_TIMECODE: mkvctx.ClusterInfo.TimeCode = value32(t_child); break;
    case ID_POSITION: mkvctx.ClusterInfo.Position = value32(t_child); break;
    case ID_PREV_SIZE: mkvctx.ClusterInfo.PrevSize = value32(t_child); break;
    case ID_SIMPLE_BLOCK:
        t_block.f_found = true;
        t_block.BlockLen = t_child.Len[1];
        break;
    case ID_BLOCK_GROUP: walk_block_group(t_child, t_block); break;
    case ID_NUMBER_92:
    case ID_BLOCK_VIRTUAL: FileGetEBMLData(t_child.Len[1]); break;
    case ID_BLOCK_DURATION:
    case ID_REFERENCE_BLOCK: skip(t_child); break;
    default: printf("error cluster ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
    }
}

// Looks at what comes before the Block, and stops at its payload.
void walk_block_group(const element_t &t_group, block_place_t &t_block)
{
    CLUSTER_BLOCK_GROUP &t_values = mkvctx.ClusterInfo.Block;
    t_block.i8_group_end = position_after(t_group.Len[1]);
    child_walk_t t_walk = children_of(t_group.Len, t_group.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_BLOCK:
            t_block.f_found = true;
            t_block.f_group_goes_on = t_walk.left() > 0;
            t_block.BlockLen = t_child.Len[1];
            return;
        case ID_REFERENCE_BLOCK:
            t_values.ReferenceBlock = static_cast<int32_t>(value32(t_child));
            break;
        case ID_BLOCK_DURATION:
            t_values.BlockDuration = static_cast<int32_t>(value32(t_child));
            break;
        default: printf("error Block ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

// TOO_LONG: it runs into the next element.
block_header_t read_block_header(uint32_t BlockLen, block_t &t_block)
{
    const int64_t i8_start = _MKV_FilePos();
    t_block.ui4_track = 0;
    if (FileGetVint(&t_block.ui4_track) == 0) return block_header_t::NO_TRACK;
    t_block.i4_time = FileGetSint(2);
    uint8_t ui1_flags = 0;
    get_bytes(&ui1_flags, 1);
    read_lacing(ui1_flags, BlockLen, t_block.t_lacing);

    const auto DataPos = static_cast<uint64_t>(_MKV_FilePos() - i8_start);
    if (DataPos > BlockLen) return block_header_t::TOO_LONG;
    t_block.DataLen = BlockLen - static_cast<uint32_t>(DataPos);
    finish_lacing(t_block.DataLen, t_block.t_lacing);
    return block_header_t::VALID;
}

// This and the next two: false when input or memory ended. Frames may be pending all the same.
bool read_payload(const block_t &t_block, bool f_audio)
{
    const uint32_t CurTimeCode =
        mkvctx.ClusterInfo.TimeCode + static_cast<uint32_t>(t_block.i4_time);
    return f_audio ? read_audio_block(CurTimeCode, t_block.t_lacing)
                   : read_video_block(CurTimeCode, t_block.DataLen);
}

bool read_audio_block(uint32_t CurTimeCode, const lacing_t &t_lacing)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    t_audio.CurTimeCode = CurTimeCode;
    uint32_t count = 0;
    frame_read_t last = frame_read_t::WHOLE;
    while (count < t_lacing.count && last == frame_read_t::WHOLE) {
        const uint32_t ui4_size = t_lacing.frame_data_num[count];
        last = mkvctx.f_seeking ? drop_audio_frame(ui4_size)
                                : read_audio_frame(ui4_size, t_audio.AudioData[count]);
        if (last != frame_read_t::NONE) ++count;
    }
    t_audio.curFrameNo = 0;
    t_audio.totalFrameNo = static_cast<uint8_t>(mkvctx.f_seeking ? 0 : count);
    mkvctx.SegInfo.AvailAudioFrameNo = static_cast<uint8_t>(count);
    return last == frame_read_t::WHOLE;
}

bool read_video_block(uint32_t CurTimeCode, uint32_t DataLen)
{
    mkvctx.VideoFrameInfo->CurTimeCode = CurTimeCode;
    const frame_read_t result = read_video_frame(DataLen);
    mkvctx.SegInfo.AvailVideoFrameNo = result != frame_read_t::NONE ? 1 : 0;
    return result == frame_read_t::WHOLE;
}

}  // namespace
