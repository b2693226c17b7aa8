#include "dmx_mp4.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dmx_mp4_block.h"
#include "dmx_mp4_box.h"
#include "dmx_mp4_i.h"
#include "dmx_mp4_walk.h"
#include "golt_avcc.h"
#include "golt_endian.h"

mp4::dmx_mp4_t mp4::dmx_mp4;

using namespace mp4;

namespace {

constexpr uint32_t LENGTH_SIZE = 4;  // bytes of a NAL unit's length, and of a start code
constexpr uint32_t START_CODE = 0x00000001;

// A larger sample counts as damaged. An uncompressed 8K picture is smaller.
constexpr uint32_t LARGEST_SAMPLE = 64 * 1024 * 1024;

bool _dmx_mp4_get_v_frame(GOLT_frame_t *pt_frame);
bool _dmx_mp4_get_a_frame(GOLT_frame_t *pt_frame);
bool has_next(const s_track &tr);
uint32_t deliverable(const s_track &tr);
void release(s_track *p_tr);
uint64_t nominal_time(const s_track &tr);
uint32_t index_at(const s_track &tr, uint64_t ui8_time);
uint64_t time_of_double(double db);

}  // namespace

GOLT_EXPORT bool GOLT_DMX_MP4Init(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle)
{
    GOLT_DMX_MP4Destroy();
    dmx_mp4.pf_read = pf_read;
    dmx_mp4.pf_seek = pf_seek;
    dmx_mp4.pv_handle = pv_handle;
    if (!_dmx_mp4_parse()) {
        GOLT_DMX_MP4Destroy();
        return false;
    }
    dmx_mp4.st_v.tr.ui4_end = dmx_mp4.st_v.pb_hdr != nullptr ? deliverable(dmx_mp4.st_v.tr) : 0;
    dmx_mp4.st_a.tr.ui4_end = deliverable(dmx_mp4.st_a.tr);
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP4Destroy()
{
    std::free(dmx_mp4.st_v.pb_hdr);
    release(&dmx_mp4.st_v.tr);
    release(&dmx_mp4.st_a.tr);
    dmx_mp4 = {};
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP4ReadFrame(GOLT_frame_t *pt_frame)
{
    const s_track &video = dmx_mp4.st_v.tr;
    const s_track &audio = dmx_mp4.st_a.tr;
    const bool f_video_ok = has_next(video);
    if (!has_next(audio)) return f_video_ok && _dmx_mp4_get_v_frame(pt_frame);
    if (!f_video_ok) return _dmx_mp4_get_a_frame(pt_frame);

    const uint64_t ui8_next_ts_v = nominal_time(video);
    const uint64_t ui8_next_ts_a = nominal_time(audio);
    const uint32_t ui4_offset_v = video.pui4_sample_offsets[video.ui4_sample_idx];
    const uint32_t ui4_offset_a = audio.pui4_sample_offsets[audio.ui4_sample_idx];
    // With equal times, the sample that is earlier in the file comes first.
    const bool f_video_first = ui8_next_ts_a != ui8_next_ts_v ? ui8_next_ts_a > ui8_next_ts_v
                                                              : ui4_offset_v < ui4_offset_a;
    return f_video_first ? _dmx_mp4_get_v_frame(pt_frame) : _dmx_mp4_get_a_frame(pt_frame);
}

GOLT_EXPORT bool GOLT_DMX_MP4SeekToBytes(int64_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP4SeekToTime(uint64_t ui8_time)
{
    s_track &video = dmx_mp4.st_v.tr;
    s_track &audio = dmx_mp4.st_a.tr;
    if (video.db_interval > 0) {
        const uint32_t ui4_index = index_at(video, ui8_time);
        video.ui4_sample_idx = ui4_index;
        for (uint32_t i = 0; i < video.ui4_num_sync_samples; ++i) {
            const uint32_t ui4_sync = video.pui4_sync_samples[i];
            if (ui4_sync < ui4_index) continue;
            video.ui4_sample_idx = ui4_sync;
            ui8_time = time_of_double(static_cast<double>(ui8_time) +
                                      video.db_interval * (ui4_sync - ui4_index));
            break;
        }
    }
    if (audio.db_interval > 0) audio.ui4_sample_idx = index_at(audio, ui8_time);
    printf("GOLT/mp4: seek: v(%d), a(%d)\n", static_cast<int>(video.ui4_sample_idx),
           static_cast<int>(audio.ui4_sample_idx));
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP4GetStreamInfo(GOLT_streamInfo_t *sinfo)
{
    const s_st_a &st_a = dmx_mp4.st_a;
    sinfo->audioCodec = GOLT_CODEC_UNKNOWN;
    if (st_a.tr.ui4_track_id != 0) {
        sinfo->audioCodec = static_cast<GOLT_codecs_t>(st_a.tr.ui4_format);
        sinfo->aud_numChannels = st_a.ui2_channels;
        sinfo->aud_sampleRate = st_a.ui4_sfreq;
        sinfo->duration = st_a.tr.ui4_duration;
    }

    const s_st_v &st_v = dmx_mp4.st_v;
    sinfo->videoCodec = GOLT_CODEC_UNKNOWN;
    if (st_v.tr.ui4_track_id == 0) return true;
    sinfo->videoCodec = static_cast<GOLT_codecs_t>(st_v.tr.ui4_format);
    sinfo->vid_arInfo = GOLT_AR_ENCODED;
    sinfo->vid_width = st_v.ui2_width;
    sinfo->vid_height = st_v.ui2_height;
    sinfo->vid_pixelAspectNumerator = st_v.ui4_pix_ar_nr;
    sinfo->vid_pixelAspectDenominator = st_v.ui4_pix_ar_dr;
    sinfo->vid_dimensionality = GOLT_DIM_2D;
    if (st_v.tr.ui4_duration == 0) return true;
    // The rate counts in whole seconds; only a track under a second is measured by its
    // milliseconds.
    const uint64_t ui8_kilo_samples = uint64_t{1000} * st_v.tr.ui4_num_samples;
    const uint32_t ui4_seconds = st_v.tr.ui4_duration / 1000;
    sinfo->vid_framesPerKiloSeconds =
        static_cast<uint32_t>(ui4_seconds != 0 ? ui8_kilo_samples / ui4_seconds
                                               : ui8_kilo_samples * 1000 / st_v.tr.ui4_duration);
    sinfo->duration = st_v.tr.ui4_duration;
    return true;
}

namespace {

// Frame delivery

// Number of samples that every table has an entry for.
uint32_t deliverable(const s_track &tr)
{
    if (tr.ui4_track_id == 0 || tr.pui4_sample_offsets == nullptr) return 0;
    uint32_t ui4_end = std::min(tr.ui4_num_samples, tr.ui4_num_offsets);
    if (tr.ui4_sample_size == 0) ui4_end = std::min(ui4_end, tr.ui4_num_sizes);
    if (tr.pui4_ts != nullptr) ui4_end = std::min(ui4_end, tr.ui4_num_ts);
    return ui4_end;
}

bool has_next(const s_track &tr)
{
    return tr.ui4_sample_idx < tr.ui4_end;
}

uint32_t next_size(const s_track &tr)
{
    return tr.ui4_sample_size != 0 ? tr.ui4_sample_size : tr.pui4_sample_sizes[tr.ui4_sample_idx];
}

// Truncated; values outside the range are cut to it.
uint64_t time_of_double(double db)
{
    if (!(db > 0)) return 0;
    return db < 18446744073709551616.0 ? static_cast<uint64_t>(db) : UINT64_MAX;
}

uint64_t nominal_time(const s_track &tr)
{
    return time_of_double(tr.ui4_sample_idx * tr.db_interval);
}

uint32_t index_at(const s_track &tr, uint64_t ui8_time)
{
    const uint64_t ui8_index = time_of_double(static_cast<double>(ui8_time) / tr.db_interval);
    return ui8_index < UINT32_MAX ? static_cast<uint32_t>(ui8_index) : UINT32_MAX;
}

// Writes the parameter sets as a byte stream to pb_dst, unless null; returns its size.
uint32_t put_parameter_sets(const s_st_v &st_v, uint8_t *pb_dst)
{
    uint32_t ui4_hdr_size = 0;
    avc_parameter_sets_t sets(golt_reader_t(st_v.pb_hdr, st_v.ui4_hdr_block_size));
    for (avc_parameter_set_t set; sets.next(&set);) {
        if (pb_dst != nullptr) {
            put_be32(pb_dst + ui4_hdr_size, START_CODE);
            memcpy(pb_dst + ui4_hdr_size + LENGTH_SIZE, set.pb_unit, set.ui4_size);
        }
        ui4_hdr_size += LENGTH_SIZE + set.ui4_size;
    }
    return ui4_hdr_size;
}

// Reads the next sample into a new block, after the parameter sets of *p_sets, unless null. These
// count as sent once there is a block for them, whether or not the sample can be read. The frame owns
// the block, also when the read fails: the bytes that have not come are then cleared, and the size of
// a sample that is read in steps is that of the block so far.
bool read_sample(const s_track &tr, s_st_v *p_sets, GOLT_frame_t *pt_frame)
{
    const uint32_t ui4_sample_size = next_size(tr);
    if (ui4_sample_size > LARGEST_SAMPLE) return false;
    const uint32_t ui4_head = p_sets != nullptr ? put_parameter_sets(*p_sets, nullptr) : 0;
    const uint32_t ui4_size = ui4_head + ui4_sample_size;
    block_t block = take_block<frame_memory>(ui4_size, ui4_head);
    if (block.pb_data == nullptr) return false;
    if (p_sets != nullptr) {
        put_parameter_sets(*p_sets, block.pb_data);
        p_sets->b_header_sent = true;
    }
    const bool f_ok = seek_to(tr.pui4_sample_offsets[tr.ui4_sample_idx], ui4_sample_size) &&
                      fill_block<frame_memory>(&block, ui4_size) == READ_WHOLE;
    if (!f_ok) memset(block.pb_data + block.ui4_filled, 0, block.ui4_room - block.ui4_filled);
    pt_frame->pb_data = block.pb_data;
    pt_frame->ui4_size = block.ui4_room;
    return f_ok;
}

bool finish_frame(s_track *p_tr, GOLT_frametypes_t frametype, GOLT_frame_t *pt_frame)
{
    pt_frame->ui4_frametype = frametype;
    pt_frame->ui8_timestamp =
        p_tr->pui4_ts != nullptr ? p_tr->pui4_ts[p_tr->ui4_sample_idx] : nominal_time(*p_tr);
    ++p_tr->ui4_sample_idx;
    return true;
}

// Replaces the lengths of NAL units by start codes. A unit that runs past the sample's end is the
// last; fewer bytes than a length takes stay as they are.
void rewrite_lengths(uint8_t *pb_sample, uint32_t ui4_left)
{
    while (ui4_left >= LENGTH_SIZE) {
        const uint32_t ui4_length = get_be32(pb_sample);
        put_be32(pb_sample, START_CODE);
        if (ui4_length > ui4_left - LENGTH_SIZE) return;
        pb_sample += LENGTH_SIZE + ui4_length;
        ui4_left -= LENGTH_SIZE + ui4_length;
    }
}

// The first frame after the start brings the parameter sets.
bool _dmx_mp4_get_v_frame(GOLT_frame_t *pt_frame)
{
    s_st_v *p_st = &dmx_mp4.st_v;
    const uint32_t ui4_sample_size = next_size(p_st->tr);
    if (!read_sample(p_st->tr, p_st->b_header_sent ? nullptr : p_st, pt_frame)) return false;
    rewrite_lengths(pt_frame->pb_data + pt_frame->ui4_size - ui4_sample_size, ui4_sample_size);
    return finish_frame(&p_st->tr, GOLT_FT_VIDEO, pt_frame);
}

bool _dmx_mp4_get_a_frame(GOLT_frame_t *pt_frame)
{
    s_track *p_tr = &dmx_mp4.st_a.tr;
    return read_sample(*p_tr, nullptr, pt_frame) && finish_frame(p_tr, GOLT_FT_AUDIO, pt_frame);
}

void release(s_track *p_tr)
{
    std::free(p_tr->pui4_sample_sizes);
    std::free(p_tr->pui4_sample_offsets);
    std::free(p_tr->pui4_sync_samples);
    std::free(p_tr->pui4_ts);
}

}  // namespace
