#include "dmx_mp4.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "golt_endian.h"
#include "golt_mem.h"

namespace {

constexpr uint32_t BOX_HEADER_SIZE = 8;  // bytes: size and type
constexpr uint32_t NO_POSITION = 0xFFFFFFFF;
constexpr uint32_t LENGTH_SIZE = 4;  // bytes of a NAL unit's length, and of a start code
constexpr uint32_t START_CODE = 0x00000001;

constexpr uint64_t POSITIONS_END = uint64_t{1} << 32;  // bytes of a file that can be reached

// A block of this many bytes is taken at once, on the file's word, and filled by one read. A larger
// one starts with FIRST_STEP and doubles whenever it has been filled, so that memory follows the
// bytes that have really come. Whether a file is as long as it says can't be asked: behind the cache
// a seek never fails, and a sparse file is long at no cost.
constexpr uint32_t BLOCK_AT_ONCE = 16 * 1024 * 1024;
constexpr uint32_t FIRST_STEP = 1024 * 1024;

// Samples above this size are taken for damage. An uncompressed picture of 8K takes less.
constexpr uint32_t LARGEST_SAMPLE = 64 * 1024 * 1024;

// Entries of sample arrays that are laid out on the file's word, in all tracks together: where one
// size stands for all samples no table has to be as long as they are many. 18 hours of AC-3.
constexpr uint32_t UNREAD_ENTRIES = 2 * 1024 * 1024;

// Boxes and tables that may reach past the end of what they lie in. The files of some writers count
// one too many, and players play them. Each costs one more walk over the rest of the file at most;
// when these are used up, what follows is held to its box.
constexpr uint32_t MAX_OVERHANGS = 16;

constexpr uint32_t box_type(const char (&letters)[5])
{
    uint32_t ui4_type = 0;
    for (int i = 0; i < 4; ++i)
        ui4_type = ui4_type << 8 | static_cast<uint8_t>(letters[i]);
    return ui4_type;
}

// A block from the general heap, zero-filled when it is taken.
struct heap_free {
    void operator()(void *pv_block) const { std::free(pv_block); }
};
template <typename T> using heap_array = std::unique_ptr<T[], heap_free>;

// Never empty, so that no memory can be told from no entries.
template <typename T> heap_array<T> make_array(uint32_t ui4_count)
{
    return heap_array<T>(static_cast<T *>(std::calloc(ui4_count != 0 ? ui4_count : 1, sizeof(T))));
}

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

dmx_mp4_t dmx_mp4;

enum { TRACK_UNKNOWN = 0, TRACK_VIDEO = 1, TRACK_AUDIO = 2, BOTH_TRACKS = 3 };

// What is known while one "trak" is open.
struct s_parse_ctx {
    uint32_t *pui4_tracks;  // kinds that have been completed
    s_track *p_tr;          // null until "hdlr" has named the kind
    uint32_t ui4_track;     // TRACK_UNKNOWN until then
    uint32_t ui4_tscale;    // ticks per second
    uint32_t ui4_track_id;
};

// Entries of the sample tables, in the layout of the file.
struct s_stsc_entry {
    uint32_t ui4_start_chunk;  // counted from 1
    uint32_t ui4_num_samples;  // in each chunk of the run
    uint32_t ui4_sample_did;
};

struct s_xtts_entry {  // in the file's byte order
    uint32_t ui4_num_samples;
    uint32_t ui4_delta;  // ticks
};

struct s_xtts {
    uint32_t ui4_num_entries;
    heap_array<s_xtts_entry> ps_entries;
};

enum : uint32_t {
    STBL_STSD = 0x1,
    STBL_STSZ = 0x2,
    STBL_STCO = 0x4,
    STBL_STSC = 0x8,
    STBL_NEEDED = 0xF,
    STBL_STSS = 0x10,
    STBL_STTS = 0x20,
    STBL_CTTS = 0x40
};

// The tables of one "stbl" as they stand in the file, but for sizes and sync samples, which go to
// the track.
struct s_stbl {
    uint32_t ui4_boxes;  // those read
    uint32_t ui4_num_chunks;
    heap_array<uint32_t> pui4_co;
    uint32_t ui4_stsc_entries;
    heap_array<s_stsc_entry> p_stsc;
    s_xtts stts;
    s_xtts ctts;
};

bool _dmx_mp4_parse();
bool _dmx_mp4_parse_tracks(uint32_t ui4_pos, uint32_t ui4_end);
bool _dmx_mp4_parse_track(uint32_t ui4_pos, uint32_t *pui4_tracks, uint32_t ui4_end);
bool _dmx_mp4_parse_mdia(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);
bool _dmx_mp4_parse_stbl(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);
bool _dmx_mp4_parse_stsd(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);
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
    // Of samples due at the same time the one that lies earlier in the file goes first.
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

// Reading

// Moves to where ui4_size bytes are to be read. Positions end at 4 GiB.
bool seek_to(uint64_t ui8_pos, uint32_t ui4_size)
{
    return ui8_pos + ui4_size <= POSITIONS_END &&
           dmx_mp4.pf_seek(dmx_mp4.pv_handle, static_cast<int64_t>(ui8_pos)) == 0;
}

// Reads from where the source stands; the number of bytes that came. A source that claims more than
// it was asked for has brought none.
uint32_t read_next(uint8_t *pb_data, uint32_t ui4_size)
{
    const uint32_t ui4_got = dmx_mp4.pf_read(dmx_mp4.pv_handle, pb_data, ui4_size);
    return ui4_got <= ui4_size ? ui4_got : 0;
}

// A seek and a read of ui4_size bytes, all of them or false.
bool read_at(uint64_t ui8_pos, uint8_t *pb_data, uint32_t ui4_size)
{
    return seek_to(ui8_pos, ui4_size) && read_next(pb_data, ui4_size) == ui4_size;
}

// A field that is cut by the end of the file keeps its value.
bool read_be32_at(uint64_t ui8_pos, uint32_t *pui4)
{
    uint8_t ab[sizeof *pui4];
    if (!read_at(ui8_pos, ab, sizeof ab)) return false;
    *pui4 = get_be32(ab);
    return true;
}

bool read_be16_at(uint64_t ui8_pos, uint16_t *pui2)
{
    uint8_t ab[sizeof *pui2];
    if (!read_at(ui8_pos, ab, sizeof ab)) return false;
    *pui2 = get_be16(ab);
    return true;
}

// Blocks that grow while they are read

// Where blocks come from.
struct heap_memory {
    static uint8_t *take(uint32_t ui4_size) { return make_array<uint8_t>(ui4_size).release(); }
    static void give_back(uint8_t *pb_block) { std::free(pb_block); }
};

struct frame_memory {
    static uint8_t *take(uint32_t ui4_size) { return GOLT_allocMem(ui4_size); }
    static void give_back(uint8_t *pb_block) { GOLT_freeMem(pb_block); }
};

struct block_t {
    uint8_t *pb_data;     // null: no memory
    uint32_t ui4_room;    // bytes
    uint32_t ui4_filled;  // bytes, from the start
};

enum read_result_t { READ_WHOLE, READ_SHORT, READ_NO_MEMORY };

// A block that is to hold ui4_size bytes in the end. The first ui4_head of them count as filled and
// are the caller's to fill.
template <typename Memory> block_t take_block(uint32_t ui4_size, uint32_t ui4_head)
{
    const uint32_t ui4_room =
        ui4_size <= BLOCK_AT_ONCE ? ui4_size : std::min(ui4_size, ui4_head + FIRST_STEP);
    return {Memory::take(ui4_room), ui4_room, ui4_head};
}

template <typename Memory> bool grow_block(block_t *p_block, uint32_t ui4_size)
{
    const uint32_t ui4_room = p_block->ui4_room <= ui4_size / 2 ? p_block->ui4_room * 2 : ui4_size;
    uint8_t *const pb_larger = Memory::take(ui4_room);
    if (pb_larger == nullptr) return false;
    memcpy(pb_larger, p_block->pb_data, p_block->ui4_filled);
    Memory::give_back(p_block->pb_data);
    p_block->pb_data = pb_larger;
    p_block->ui4_room = ui4_room;
    return true;
}

// Fills a block up to ui4_size bytes from where the source stands.
template <typename Memory> read_result_t fill_block(block_t *p_block, uint32_t ui4_size)
{
    for (;;) {
        p_block->ui4_filled += read_next(p_block->pb_data + p_block->ui4_filled,
                                         p_block->ui4_room - p_block->ui4_filled);
        if (p_block->ui4_filled < p_block->ui4_room) return READ_SHORT;
        if (p_block->ui4_room >= ui4_size) return READ_WHOLE;
        if (!grow_block<Memory>(p_block, ui4_size)) return READ_NO_MEMORY;
    }
}

// ui4_size bytes at ui8_pos as an array of the general heap.
template <typename T>
read_result_t read_array(uint64_t ui8_pos, uint32_t ui4_size, heap_array<T> *p_array)
{
    block_t block = take_block<heap_memory>(ui4_size, 0);
    if (block.pb_data == nullptr) return READ_NO_MEMORY;
    const read_result_t result =
        seek_to(ui8_pos, ui4_size) ? fill_block<heap_memory>(&block, ui4_size) : READ_SHORT;
    // Memory of the general heap suits every type.
    heap_array<T> array(static_cast<T *>(static_cast<void *>(block.pb_data)));
    if (result == READ_WHOLE) *p_array = std::move(array);
    return result;
}

// Boxes (ISO/IEC 14496-12). A box is named by the position of its header; an end is the position of
// the last byte of the enclosing box.

bool _dmx_mp4_get_box_header(uint32_t ui4_pos, uint32_t *pui4_size, uint32_t *pui4_type)
{
    uint8_t ab_header[BOX_HEADER_SIZE];
    if (!read_at(ui4_pos, ab_header, BOX_HEADER_SIZE)) return false;
    *pui4_size = get_be32(ab_header);
    *pui4_type = get_be32(ab_header + 4);
    return true;
}

// Moves behind a box. False where no box can follow: a size below that of a header (0 and 1 have
// meanings that are not handled) leads nowhere, and positions end at 4 GiB. The walk of that level
// then ends, as it does where a header can't be read.
bool step_over(uint32_t *pui4_pos, uint32_t ui4_size)
{
    if (ui4_size < BOX_HEADER_SIZE || ui4_size > UINT32_MAX - *pui4_pos) return false;
    *pui4_pos += ui4_size;
    return true;
}

// Whether something may reach past the end of what it lies in.
bool may_overhang()
{
    if (dmx_mp4.ui4_overhangs == MAX_OVERHANGS) return false;
    ++dmx_mp4.ui4_overhangs;
    return true;
}

// Last byte of a box, or of the enclosing one, which ends at ui4_end, where it is held to that.
uint32_t held_last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end)
{
    const uint64_t ui8_last = uint64_t{ui4_pos} + ui4_size - 1;
    return ui8_last < ui4_end ? static_cast<uint32_t>(ui8_last) : ui4_end;
}

// Last byte of a box that is entered. Its size is trusted, as long as that costs little.
uint32_t last_byte(uint32_t ui4_pos, uint32_t ui4_size, uint32_t ui4_end)
{
    const uint32_t ui4_last = held_last_byte(ui4_pos, ui4_size, UINT32_MAX);
    return ui4_last <= ui4_end || may_overhang() ? ui4_last : ui4_end;
}

// Finds a sibling from *pui4_pos on and returns its size, or 0; ui4_end 0 means no bound.
uint32_t _dmx_mp4_goto_box(uint32_t ui4_box_type, uint32_t *pui4_pos, uint32_t ui4_end)
{
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (_dmx_mp4_get_box_header(*pui4_pos, &ui4_size, &ui4_type)) {
        if (ui4_type == ui4_box_type) return ui4_size >= BOX_HEADER_SIZE ? ui4_size : 0;
        if (!step_over(pui4_pos, ui4_size)) return 0;
        if (ui4_end != 0 && *pui4_pos >= ui4_end) return 0;
    }
    return 0;
}

bool has_all_boxes(const char *walker, uint32_t ui4_expected, uint32_t ui4_got)
{
    if (ui4_got == ui4_expected) return true;
    printf("GOLT/mp4: %s: expected 0x%x boxes, got 0x%x\n", walker, ui4_expected, ui4_got);
    return false;
}

// Track walk

// "ftyp" first, then to the first moment when both "moov" and "mdat" have been seen.
bool _dmx_mp4_parse()
{
    constexpr uint32_t MOOV = 0x1;
    constexpr uint32_t MDAT = 0x2;
    uint32_t ui4_boxes = 0;
    uint32_t ui4_mdat_box = NO_POSITION;
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    if (!_dmx_mp4_get_box_header(0, &ui4_size, &ui4_type)) {
        puts("GOLT/mp4: Header read error");
        return false;
    }
    if (ui4_type != box_type("ftyp")) {
        puts("GOLT/mp4: 'ftyp' box not found");
        return false;
    }

    uint32_t ui4_pos = 0;
    while (step_over(&ui4_pos, ui4_size) &&
           _dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) {
        if (ui4_type == box_type("moov")) {
            // Whether there was anything of use in it shows in the track records.
            _dmx_mp4_parse_tracks(ui4_pos + BOX_HEADER_SIZE,
                                  last_byte(ui4_pos, ui4_size, UINT32_MAX));
            ui4_boxes |= MOOV;
        } else if (ui4_type == box_type("mdat")) {
            if ((ui4_boxes & MOOV) == 0) ui4_mdat_box = ui4_pos;
            ui4_boxes |= MDAT;
        }
        if (ui4_boxes == (MOOV | MDAT)) break;
    }

    // A source that was read to its end is brought back to the media data.
    if ((ui4_boxes & MOOV) != 0 && ui4_mdat_box != NO_POSITION) {
        uint32_t tmp = 0;
        if (!read_be32_at(ui4_mdat_box, &tmp)) return false;
    }
    return has_all_boxes("_dmx_mp4_parse", MOOV, ui4_boxes & MOOV);
}

// The "trak" boxes of a "moov", until one track of each kind is complete or one fails.
bool _dmx_mp4_parse_tracks(uint32_t ui4_pos, uint32_t ui4_end)
{
    uint32_t ui4_tracks = 0;
    uint32_t ui4_track_start = ui4_pos;
    for (;;) {
        const uint32_t ui4_box_size =
            _dmx_mp4_goto_box(box_type("trak"), &ui4_track_start, ui4_end);
        if (ui4_box_size == 0) return false;
        if (!_dmx_mp4_parse_track(ui4_track_start + BOX_HEADER_SIZE, &ui4_tracks,
                                  last_byte(ui4_track_start, ui4_box_size, ui4_end)))
            return false;
        if (ui4_tracks == BOTH_TRACKS) return true;
        if (!step_over(&ui4_track_start, ui4_box_size)) return false;
    }
}

bool _dmx_mp4_parse_track(uint32_t ui4_pos, uint32_t *pui4_tracks, uint32_t ui4_end)
{
    constexpr uint32_t TKHD = 0x1;
    constexpr uint32_t MDIA = 0x2;
    uint32_t ui4_boxes = 0;
    s_parse_ctx ctx = {};
    ctx.pui4_tracks = pui4_tracks;

    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (ui4_pos < ui4_end && _dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) {
        if (ui4_type == box_type("tkhd")) {
            if (!read_be32_at(uint64_t{ui4_pos} + 20, &ctx.ui4_track_id)) return false;
            ui4_boxes |= TKHD;
        } else if (ui4_type == box_type("mdia")) {
            if (_dmx_mp4_parse_mdia(ui4_pos + BOX_HEADER_SIZE,
                                    last_byte(ui4_pos, ui4_size, ui4_end), &ctx))
                ui4_boxes |= MDIA;
        }
        if (!step_over(&ui4_pos, ui4_size)) break;
    }
    return has_all_boxes("_dmx_mp4_parse_track", TKHD | MDIA, ui4_boxes);
}

// "hdlr" at ui4_pos: opens the record of the track that it names. *pf_track: whether there is one;
// false as result: a failed read.
bool open_track(uint32_t ui4_pos, uint32_t ui4_duration, s_parse_ctx *p_ctx, bool *pf_track)
{
    uint32_t ui4_handler = 0;
    if (!read_be32_at(uint64_t{ui4_pos} + 16, &ui4_handler)) return false;
    const bool f_video = ui4_handler == box_type("vide");
    // Without a time scale, be it 0 or still to come, no time can be told: such a track isn't
    // opened.
    *pf_track = (f_video || ui4_handler == box_type("soun")) && p_ctx->ui4_tscale != 0;
    if (!*pf_track) return true;
    p_ctx->ui4_track = f_video ? TRACK_VIDEO : TRACK_AUDIO;
    p_ctx->p_tr = f_video ? &dmx_mp4.st_v.tr : &dmx_mp4.st_a.tr;
    p_ctx->p_tr->ui4_sample_idx = 0;
    p_ctx->p_tr->ui4_track_id = p_ctx->ui4_track_id;
    p_ctx->p_tr->ui4_duration =
        static_cast<uint32_t>(uint64_t{ui4_duration} * 1000 / p_ctx->ui4_tscale);
    return true;
}

// "minf" at ui4_pos, which ends at ui4_last. The search for "stbl" is bounded by ui4_end, the end of
// "mdia": where it leaves "minf" it counts as an overhang.
bool parse_minf(uint32_t ui4_pos, uint32_t ui4_last, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    if (p_ctx->p_tr == nullptr || p_ctx->ui4_tscale == 0) return false;
    const bool f_far = dmx_mp4.ui4_overhangs < MAX_OVERHANGS;
    uint32_t ui4_boxpos = ui4_pos + BOX_HEADER_SIZE;
    const uint32_t ui4_boxsiz =
        _dmx_mp4_goto_box(box_type("stbl"), &ui4_boxpos, f_far ? ui4_end : ui4_last);
    const bool f_left = ui4_boxpos > ui4_last;
    if (f_left && f_far) may_overhang();
    if (ui4_boxsiz == 0) return false;
    if (!_dmx_mp4_parse_stbl(ui4_boxpos + BOX_HEADER_SIZE,
                             last_byte(ui4_boxpos, ui4_boxsiz, f_left ? ui4_end : ui4_last), p_ctx))
        return false;
    *p_ctx->pui4_tracks |= p_ctx->ui4_track;
    return true;
}

bool _dmx_mp4_parse_mdia(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    constexpr uint32_t MDHD = 0x1;
    constexpr uint32_t HDLR = 0x2;
    constexpr uint32_t MINF = 0x4;
    uint32_t ui4_boxes = 0;
    uint32_t ui4_duration = 0;
    p_ctx->ui4_track = TRACK_UNKNOWN;
    p_ctx->p_tr = nullptr;

    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (ui4_pos < ui4_end && _dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) {
        if (ui4_type == box_type("mdhd")) {
            if (!read_be32_at(uint64_t{ui4_pos} + 20, &p_ctx->ui4_tscale)) return false;
            if (!read_be32_at(uint64_t{ui4_pos} + 24, &ui4_duration)) return false;
            ui4_boxes |= MDHD;
        } else if (ui4_type == box_type("hdlr")) {
            bool f_track = false;
            if (!open_track(ui4_pos, ui4_duration, p_ctx, &f_track)) return false;
            if (!f_track) break;
            ui4_boxes |= HDLR;
        } else if (ui4_type == box_type("minf")) {
            if (parse_minf(ui4_pos, held_last_byte(ui4_pos, ui4_size, ui4_end), ui4_end, p_ctx))
                ui4_boxes |= MINF;
        }
        if (!step_over(&ui4_pos, ui4_size)) break;
    }
    return has_all_boxes("_dmx_mp4_parse_mdia", MDHD | HDLR | MINF, ui4_boxes);
}

// Sample tables

// Turns words into the processor's order, two at a time as far as it goes: the tables of a long film
// have millions.
void swap_words(uint32_t *pui4_words, uint32_t ui4_count)
{
    uint32_t *const pui4_last = pui4_words + (ui4_count & ~1u);
    for (; pui4_words < pui4_last; pui4_words += 2) {
        uint64_t ui8_pair = 0;
        memcpy(&ui8_pair, pui4_words, sizeof ui8_pair);
        ui8_pair = __builtin_bswap64(ui8_pair);
        ui8_pair = ui8_pair << 32 | ui8_pair >> 32;
        memcpy(pui4_words, &ui8_pair, sizeof ui8_pair);
    }
    if ((ui4_count & 1) != 0) *pui4_last = bswap_32(*pui4_last);
}

// Reads the ui4_count entries at ui8_pos of a box that ends at ui4_last. *pui4_count and *p_table
// change together, when all have come.
template <typename T>
bool read_entries(uint64_t ui8_pos, uint32_t ui4_last, uint32_t ui4_count, uint32_t *pui4_count,
                  heap_array<T> *p_table)
{
    const uint64_t ui8_size = uint64_t{ui4_count} * sizeof(T);
    if (ui8_size > UINT32_MAX) return false;
    // A table is read whole, whatever its box says.
    if (ui8_pos + ui8_size > uint64_t{ui4_last} + 1 && !may_overhang()) return false;
    if (read_array(ui8_pos, static_cast<uint32_t>(ui8_size), p_table) != READ_WHOLE) return false;
    *pui4_count = ui4_count;
    // Entries are nothing but words. Those of runs are read once, in order, and turned then.
    if constexpr (!std::is_same_v<T, s_xtts_entry>)
        swap_words(reinterpret_cast<uint32_t *>(p_table->get()),
                   static_cast<uint32_t>(ui8_size / sizeof(uint32_t)));
    return true;
}

// A table whose entries stand behind their count, which is at ui8_pos.
template <typename T>
bool read_table(uint64_t ui8_pos, uint32_t ui4_last, uint32_t *pui4_count, heap_array<T> *p_table)
{
    uint32_t ui4_count = 0;
    return read_be32_at(ui8_pos, &ui4_count) &&
           read_entries(ui8_pos + sizeof ui4_count, ui4_last, ui4_count, pui4_count, p_table);
}

// Puts a table in the place of one that an earlier track of the kind may have left.
void replace(uint32_t **ppui4_table, heap_array<uint32_t> *p_new)
{
    std::free(*ppui4_table);
    *ppui4_table = p_new->release();
}

bool read_stsz(uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr)
{
    if (!read_be32_at(uint64_t{ui4_pos} + 12, &p_tr->ui4_sample_size)) return false;
    if (p_tr->ui4_sample_size != 0) return true;
    heap_array<uint32_t> pui4_sizes;
    if (!read_table(uint64_t{ui4_pos} + 16, ui4_last, &p_tr->ui4_num_sizes, &pui4_sizes))
        return false;
    replace(&p_tr->pui4_sample_sizes, &pui4_sizes);
    return true;
}

bool read_stss(uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr)
{
    heap_array<uint32_t> pui4_numbers;
    if (!read_table(uint64_t{ui4_pos} + 12, ui4_last, &p_tr->ui4_num_sync_samples, &pui4_numbers))
        return false;
    for (uint32_t i = 0; i < p_tr->ui4_num_sync_samples; ++i)
        pui4_numbers[i] -= 1;
    replace(&p_tr->pui4_sync_samples, &pui4_numbers);
    return true;
}

// One child of "stbl" but "stsd"; sets its bit in ui4_boxes. False when it couldn't be read whole.
bool read_table_box(uint32_t ui4_type, uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr,
                    s_stbl *p_stbl)
{
    const uint64_t ui8_table = uint64_t{ui4_pos} + 12;
    uint32_t ui4_box = 0;
    bool f_ok = true;
    switch (ui4_type) {
    case box_type("stsz"):
        ui4_box = STBL_STSZ;
        f_ok = read_stsz(ui4_pos, ui4_last, p_tr);
        break;
    case box_type("stco"):
        ui4_box = STBL_STCO;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ui4_num_chunks, &p_stbl->pui4_co);
        break;
    case box_type("stsc"):
        ui4_box = STBL_STSC;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ui4_stsc_entries, &p_stbl->p_stsc);
        break;
    case box_type("stss"):
        ui4_box = STBL_STSS;
        f_ok = read_stss(ui4_pos, ui4_last, p_tr);
        break;
    case box_type("stts"):
        ui4_box = STBL_STTS;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->stts.ui4_num_entries,
                          &p_stbl->stts.ps_entries);
        break;
    case box_type("ctts"):
        ui4_box = STBL_CTTS;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ctts.ui4_num_entries,
                          &p_stbl->ctts.ps_entries);
        break;
    default: break;
    }
    p_stbl->ui4_boxes |= ui4_box;
    return f_ok;
}

// The only source of the number of samples; sums as the format's 32-bit numbers do.
uint32_t count_samples(const s_stbl &stbl)
{
    uint32_t ui4_count = 0;
    for (uint32_t i = 0; i < stbl.ui4_stsc_entries; ++i) {
        const s_stsc_entry &run = stbl.p_stsc[i];
        const uint32_t ui4_next_chunk = i + 1 < stbl.ui4_stsc_entries
                                            ? stbl.p_stsc[i + 1].ui4_start_chunk
                                            : stbl.ui4_num_chunks + 1;
        ui4_count += run.ui4_num_samples * (ui4_next_chunk - run.ui4_start_chunk);
    }
    return ui4_count;
}

// As many of ui4_wanted entries as may still be laid out on the file's word.
uint32_t grant_unread(uint32_t ui4_wanted)
{
    const uint32_t ui4_left = UNREAD_ENTRIES - dmx_mp4.ui4_unread_entries;
    const uint32_t ui4_granted = ui4_wanted < ui4_left ? ui4_wanted : ui4_left;
    dmx_mp4.ui4_unread_entries += ui4_granted;
    return ui4_granted;
}

// Samples of one chunk lie back to back from ui8_offset on. Places those from ui4_first up to ui4_end
// and returns the first one not placed, which is ui4_end unless they lead past 4 GiB.
uint32_t place_chunk(const s_track &tr, uint64_t ui8_offset, uint32_t ui4_first, uint32_t ui4_end,
                     uint32_t *pui4_offsets)
{
    const uint32_t ui4_constant = tr.ui4_sample_size;
    const uint32_t *const pui4_sizes = tr.pui4_sample_sizes;
    const auto size_of = [=](uint32_t i) {
        return ui4_constant != 0 ? ui4_constant : pui4_sizes[i];
    };
    for (uint32_t i = ui4_first; i < ui4_end; ++i) {
        pui4_offsets[i] = static_cast<uint32_t>(ui8_offset);
        ui8_offset += size_of(i);
    }
    // Looked at only here, as hardly a file comes near it: those that end past 4 GiB are taken back.
    while (ui8_offset > POSITIONS_END && ui4_end > ui4_first) {
        --ui4_end;
        ui8_offset -= size_of(ui4_end);
    }
    return ui4_end;
}

// Returns the number of samples placed: it is short of ui4_room where the tables contradict each
// other or lead past 4 GiB, and the track ends there. Chunks that don't exist hold no samples. A
// chunk that is visited again takes new samples each time, so that ui4_room bounds the visits.
uint32_t expand_offsets(const s_stbl &stbl, const s_track &tr, uint32_t ui4_room,
                        uint32_t *pui4_offsets)
{
    uint32_t ui4_si = 0;
    for (uint32_t i = 0; i < stbl.ui4_stsc_entries; ++i) {
        const s_stsc_entry run = stbl.p_stsc[i];
        uint32_t ui4_last_chunk = stbl.ui4_num_chunks;
        if (i + 1 < stbl.ui4_stsc_entries &&
            stbl.p_stsc[i + 1].ui4_start_chunk - 1 < ui4_last_chunk)
            ui4_last_chunk = stbl.p_stsc[i + 1].ui4_start_chunk - 1;
        if (run.ui4_num_samples == 0) continue;
        if (run.ui4_start_chunk == 0) return ui4_si;
        for (uint32_t ui4_chunk = run.ui4_start_chunk; ui4_chunk <= ui4_last_chunk; ++ui4_chunk) {
            const uint32_t ui4_left = ui4_room - ui4_si;
            const uint32_t ui4_wanted = run.ui4_num_samples;
            const uint32_t ui4_end = ui4_si + (ui4_wanted < ui4_left ? ui4_wanted : ui4_left);
            ui4_si = place_chunk(tr, stbl.pui4_co[ui4_chunk - 1], ui4_si, ui4_end, pui4_offsets);
            if (ui4_si < ui4_end || ui4_wanted > ui4_left) return ui4_si;
        }
    }
    return ui4_si;
}

// The offsets of ui4_count samples, or of as many as have a size. False without memory.
bool lay_out_offsets(const s_stbl &stbl, uint32_t ui4_count, s_track *p_tr)
{
    const bool f_one_size = p_tr->ui4_sample_size != 0;
    const uint32_t ui4_room = f_one_size                        ? grant_unread(ui4_count)
                              : ui4_count < p_tr->ui4_num_sizes ? ui4_count
                                                                : p_tr->ui4_num_sizes;
    heap_array<uint32_t> pui4_offsets = make_array<uint32_t>(ui4_room);
    if (pui4_offsets == nullptr) return false;
    p_tr->ui4_num_offsets = expand_offsets(stbl, *p_tr, ui4_room, pui4_offsets.get());
    replace(&p_tr->pui4_sample_offsets, &pui4_offsets);
    // Tables that contradict each other have as many samples as they agree upon. Where there are just
    // too many to lay them all out, the mean interval still goes by all of them.
    p_tr->ui4_num_samples =
        f_one_size && p_tr->ui4_num_offsets == ui4_room ? ui4_count : p_tr->ui4_num_offsets;
    return true;
}

// A place in a table of runs.
struct delta_walk_t {
    const s_xtts_entry *p_next;
    const s_xtts_entry *p_end;
    uint32_t ui4_left;   // samples of the present run
    uint32_t ui4_delta;  // of each of them

    explicit delta_walk_t(const s_xtts &xtts)
        : p_next(xtts.ps_entries.get())
        , p_end(xtts.ps_entries.get() + xtts.ui4_num_entries)
        , ui4_left(0)
        , ui4_delta(0)
    {
    }

    // Moves to the next run that has samples. Behind the last one, where it returns false, there is
    // one of delta 0 for all the samples that a track can have.
    bool next_run()
    {
        do {
            if (p_next == p_end) {
                ui4_left = UINT32_MAX;
                ui4_delta = 0;
                return false;
            }
            ui4_left = bswap_32(p_next->ui4_num_samples);
            ui4_delta = bswap_32(p_next->ui4_delta);
            ++p_next;
        } while (ui4_left == 0);
        return true;
    }
};

// Presentation times in ms, in decoding order, of ui4_num_samples samples. Samples behind the runs
// of "stts" have the decoding time 0, those behind the runs of "ctts" no offset.
heap_array<uint32_t> expand_timestamps(const s_stbl &stbl, uint32_t ui4_num_samples,
                                       uint32_t ui4_tscale)
{
    heap_array<uint32_t> pui4_ts = make_array<uint32_t>(ui4_num_samples);
    if (pui4_ts == nullptr) return pui4_ts;
    delta_walk_t t_durations(stbl.stts);
    delta_walk_t t_offsets(stbl.ctts);
    uint32_t ui4_next_ts = 0;
    for (uint32_t i = 0; i < ui4_num_samples; ++i) {
        if (t_durations.ui4_left == 0 && !t_durations.next_run()) ui4_next_ts = 0;
        if (t_offsets.ui4_left == 0) t_offsets.next_run();
        --t_durations.ui4_left;
        --t_offsets.ui4_left;
        const double db_ms = (ui4_next_ts + t_offsets.ui4_delta) * 1000.0 / ui4_tscale;
        pui4_ts[i] = static_cast<uint32_t>(static_cast<int64_t>(db_ms));
        ui4_next_ts += t_durations.ui4_delta;
    }
    return pui4_ts;
}

// The times of all samples that have an offset. Where the offsets are an earlier track's, a table of
// times can come without the bytes that a table of sizes has. False without memory.
bool lay_out_times(const s_stbl &stbl, bool f_offsets, uint32_t ui4_tscale, s_track *p_tr)
{
    const uint32_t ui4_count =
        f_offsets ? p_tr->ui4_num_offsets : grant_unread(p_tr->ui4_num_offsets);
    heap_array<uint32_t> pui4_ts = expand_timestamps(stbl, ui4_count, ui4_tscale);
    if (pui4_ts == nullptr) return false;
    replace(&p_tr->pui4_ts, &pui4_ts);
    p_tr->ui4_num_ts = ui4_count;
    return true;
}

// Turns the tables into the track's arrays. What no table was read for stays as an earlier track of
// the kind has left it. False without memory.
bool flatten(const s_stbl &stbl, const s_parse_ctx &ctx)
{
    s_track *p_tr = ctx.p_tr;
    constexpr uint32_t FOR_OFFSETS = STBL_STSZ | STBL_STCO | STBL_STSC;
    const bool f_offsets = (stbl.ui4_boxes & FOR_OFFSETS) == FOR_OFFSETS;
    const bool f_constant = stbl.stts.ui4_num_entries <= 1 && stbl.ctts.ui4_num_entries == 0;
    if ((stbl.ui4_boxes & STBL_STSC) != 0) p_tr->ui4_num_samples = count_samples(stbl);
    if (f_offsets && !lay_out_offsets(stbl, p_tr->ui4_num_samples, p_tr)) return false;
    if (!f_constant) {
        if (!lay_out_times(stbl, f_offsets, ctx.ui4_tscale, p_tr)) return false;
    } else if (f_offsets) {
        heap_array<uint32_t> none;
        replace(&p_tr->pui4_ts, &none);
    }
    if (f_constant && stbl.stts.ui4_num_entries == 1)
        p_tr->db_interval = bswap_32(stbl.stts.ps_entries[0].ui4_delta) * (1000.0 / ctx.ui4_tscale);
    if (p_tr->db_interval == 0 && p_tr->ui4_num_samples != 0)
        p_tr->db_interval = static_cast<double>(p_tr->ui4_duration) / p_tr->ui4_num_samples;
    return true;
}

bool _dmx_mp4_parse_stbl(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    s_stbl stbl = {};
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (ui4_pos < ui4_end && _dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) {
        const uint32_t ui4_last = held_last_byte(ui4_pos, ui4_size, ui4_end);
        if (ui4_type == box_type("stsd")) {
            if (!_dmx_mp4_parse_stsd(ui4_pos + 16, ui4_last, p_ctx)) break;
            stbl.ui4_boxes |= STBL_STSD;
        } else if (!read_table_box(ui4_type, ui4_pos, ui4_last, p_ctx->p_tr, &stbl)) {
            return false;
        }
        if (!step_over(&ui4_pos, ui4_size)) break;
    }
    if (!flatten(stbl, *p_ctx)) return false;

    const char *const walker = "_dmx_mp4_parse_stbl";
    if (!has_all_boxes(walker, STBL_NEEDED, stbl.ui4_boxes & STBL_NEEDED)) return false;
    static const struct {
        uint32_t ui4_box;
        const char *name;
    } optional_boxes[] = {{STBL_STSS, "stss"}, {STBL_STTS, "stts"}, {STBL_CTTS, "ctts"}};
    for (const auto &row : optional_boxes) {
        if ((stbl.ui4_boxes & row.ui4_box) == 0)
            printf("GOLT/mp4: %s: Sync Sample Box '%s' not found\n", walker, row.name);
    }
    return true;
}

// Sample descriptions

int32_t _dmx_mp4_gcd(int32_t i4_num_1, int32_t i4_num_2)
{
    if (i4_num_1 == 0) return i4_num_2;
    while (i4_num_2 != 0) {
        // Wider than the numbers: the smallest one has no counterpart to be divided by -1.
        const auto i4_rest = static_cast<int32_t>(int64_t{i4_num_1} % i4_num_2);
        i4_num_1 = i4_num_2;
        i4_num_2 = i4_rest;
    }
    return i4_num_1;
}

// The ratio of the entry's two resolutions in lowest terms; square pixels where both are 0.
void set_pixel_aspect(s_st_v *p_st)
{
    const auto ui4_gcd = static_cast<uint32_t>(_dmx_mp4_gcd(
        static_cast<int32_t>(p_st->ui4_pix_ar_nr), static_cast<int32_t>(p_st->ui4_pix_ar_dr)));
    if (ui4_gcd == 0) {
        p_st->ui4_pix_ar_nr = 1;
        p_st->ui4_pix_ar_dr = 1;
        return;
    }
    p_st->ui4_pix_ar_nr /= ui4_gcd;
    p_st->ui4_pix_ar_dr /= ui4_gcd;
}

// "avcC" (ISO/IEC 14496-15) inside an entry that ends at ui4_end: the parameter sets are kept as
// they stand.
bool read_avcc(uint32_t ui4_pos, uint32_t ui4_end, s_st_v *p_st)
{
    constexpr uint32_t HEAD =
        13;  // box header, version, profile, compatibility, level, length size
    const uint32_t ui4_size = _dmx_mp4_goto_box(box_type("avcC"), &ui4_pos, ui4_end);
    if (ui4_size == 0) {
        puts("GOLT/mp4: 'avcC' box not found");
        return false;
    }
    const uint32_t ui4_block = ui4_size - HEAD;
    const uint64_t ui8_block_pos = uint64_t{ui4_pos} + HEAD;
    heap_array<uint8_t> pb_hdr;
    read_result_t result = READ_NO_MEMORY;  // for a box that has nothing to be kept
    if (ui4_size >= HEAD) {
        if (ui8_block_pos + ui4_block > uint64_t{ui4_end} + 1 && !may_overhang()) return false;
        result = read_array(ui8_block_pos, ui4_block, &pb_hdr);
    }
    if (result == READ_NO_MEMORY)
        printf("GOLT/mp4: Couldn't alloc %d bytes for 'avcC' header\n",
               static_cast<int>(ui4_block));
    if (result != READ_WHOLE) return false;
    std::free(p_st->pb_hdr);
    p_st->pb_hdr = pb_hdr.release();
    p_st->ui4_hdr_block_size = ui4_block;
    return true;
}

bool parse_video_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_v *p_st)
{
    if (ui4_type != box_type("avc1")) {
        printf("GOLT/mp4: Unsupported Video Codec format '%c%c%c%c'\n",
               static_cast<int>(ui4_type >> 24), static_cast<int>(ui4_type >> 16 & 0xFF),
               static_cast<int>(ui4_type >> 8 & 0xFF), static_cast<int>(ui4_type & 0xFF));
        return false;
    }
    p_st->tr.ui4_format = GOLT_VCODEC_H264;
    const uint64_t ui8_pos = ui4_pos;
    if (!read_be16_at(ui8_pos + 32, &p_st->ui2_width)) return false;
    if (!read_be16_at(ui8_pos + 34, &p_st->ui2_height)) return false;
    if (!read_be32_at(ui8_pos + 36, &p_st->ui4_pix_ar_nr)) return false;
    if (!read_be32_at(ui8_pos + 40, &p_st->ui4_pix_ar_dr)) return false;
    set_pixel_aspect(p_st);
    return read_avcc(ui4_pos + 86, ui4_end, p_st);
}

// Sampling frequency of an AudioSpecificConfig (ISO/IEC 14496-3), of which at least five bytes can
// be read.
uint32_t sampling_frequency(const uint8_t *pb)
{
    static const uint32_t aui4_sr_table[16] = {96000, 88200, 64000, 48000, 44100, 32000,
                                               24000, 22050, 16000, 12000, 11025, 8000,
                                               7350,  0,     0,     0};
    constexpr uint32_t ESCAPE_TYPE = 31;
    constexpr uint32_t ESCAPE_INDEX = 15;
    const uint32_t b0 = pb[0], b1 = pb[1], b2 = pb[2], b3 = pb[3], b4 = pb[4];
    const uint32_t ui4_base_object_type = b0 >> 3;
    if (ui4_base_object_type == ESCAPE_TYPE) {
        const uint32_t ui4_sr_index = b1 >> 1 & 0xF;
        return ui4_sr_index == ESCAPE_INDEX ? b2 << 15 | b3 << 7 | b4 >> 1
                                            : aui4_sr_table[ui4_sr_index];
    }
    const uint32_t ui4_sr_index = (b0 & 7) << 1 | b1 >> 7;
    return ui4_sr_index == ESCAPE_INDEX ? b2 << 9 | b3 << 1 | b4 >> 7 : aui4_sr_table[ui4_sr_index];
}

// "esds" (ISO/IEC 14496-14): the descriptors are walked by fixed steps, for lengths of one or four
// bytes.
bool parse_esds(uint32_t ui4_pos, uint32_t ui4_end, s_st_a *p_st, const char *walker)
{
    constexpr uint32_t DESCRIPTORS = 12;  // bytes from the start of the box
    constexpr uint8_t LONG_LENGTH = 0x80;
    constexpr uint8_t OBJECT_TYPE_AAC = 0x40;
    constexpr uint8_t OBJECT_TYPE_MP3 = 0x6B;
    uint8_t ab_buf[256] = {};
    const uint32_t ui4_size = _dmx_mp4_goto_box(box_type("esds"), &ui4_pos, ui4_end);
    if (ui4_size == 0) return false;
    const uint64_t ui8_pos = uint64_t{ui4_pos} + DESCRIPTORS;
    if (!read_at(ui8_pos, ab_buf, ui4_size < sizeof ab_buf ? ui4_size : sizeof ab_buf))
        return false;

    uint8_t ui1_pos = ab_buf[1] == LONG_LENGTH ? 9 : 6;  // length of the decoder configuration
    if (ab_buf[ui1_pos] == LONG_LENGTH) ui1_pos = static_cast<uint8_t>(ui1_pos + 3);
    const uint8_t ui1_object_type = ab_buf[++ui1_pos];
    if (ui1_object_type == OBJECT_TYPE_AAC) {
        printf("GOLT/mp4: %s: Audio format: AAC\n", walker);
        p_st->tr.ui4_format = GOLT_ACODEC_AAC;
    } else if (ui1_object_type == OBJECT_TYPE_MP3) {
        printf("GOLT/mp4: %s: Audio format: MP3\n", walker);
        p_st->tr.ui4_format = GOLT_ACODEC_MP3;
    }

    ui1_pos =
        static_cast<uint8_t>(ui1_pos + 14);  // length of what follows the configuration's 13 bytes
    if (ab_buf[ui1_pos] == LONG_LENGTH) ui1_pos = static_cast<uint8_t>(ui1_pos + 3);
    const uint8_t ui1_size = ab_buf[ui1_pos];
    memset(ab_buf, 0, sizeof ab_buf);
    if (!read_at(ui8_pos + ui1_pos + 1, ab_buf, ui1_size)) return false;
    // Only AAC has such a block, and it takes two bytes; all else keeps the rate of the sample
    // entry.
    if (ui1_object_type == OBJECT_TYPE_AAC && ui1_size >= 2)
        p_st->ui4_sfreq = sampling_frequency(ab_buf);
    return true;
}

bool parse_audio_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_a *p_st)
{
    const char *const walker = "_dmx_mp4_parse_stsd";
    switch (ui4_type) {
    case box_type("mp4a"): break;
    case box_type("ac-3"):
        printf("GOLT/mp4: %s: Audio format: AC3\n", walker);
        p_st->tr.ui4_format = GOLT_ACODEC_AC3;
        break;
    case box_type("ec-3"):
        printf("GOLT/mp4: %s: Audio format: EAC3\n", walker);
        p_st->tr.ui4_format = GOLT_ACODEC_EAC3;
        break;
    default:
        printf("GOLT/mp4: %s: Audio format: '%c%c%c%c' unsupported\n", walker,
               static_cast<int>(ui4_type >> 24), static_cast<int>(ui4_type >> 16 & 0xFF),
               static_cast<int>(ui4_type >> 8 & 0xFF), static_cast<int>(ui4_type & 0xFF));
        return false;
    }
    uint16_t ui2_channels = 0;
    uint16_t ui2_rate = 0;
    if (!read_be16_at(uint64_t{ui4_pos} + 24, &ui2_channels)) return false;
    p_st->ui2_channels = ui2_channels;
    if (!read_be16_at(uint64_t{ui4_pos} + 32, &ui2_rate)) return false;
    p_st->ui4_sfreq = ui2_rate;
    return ui4_type != box_type("mp4a") || parse_esds(ui4_pos + 36, ui4_end, p_st, walker);
}

// The first sample entry of "stsd", at ui4_pos. The kind of the track tells how it is read.
bool _dmx_mp4_parse_stsd(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    if (!_dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) return false;
    const uint32_t ui4_last = last_byte(ui4_pos, ui4_size, ui4_end);
    return p_ctx->ui4_track == TRACK_VIDEO
               ? parse_video_entry(ui4_pos, ui4_last, ui4_type, &dmx_mp4.st_v)
               : parse_audio_entry(ui4_pos, ui4_last, ui4_type, &dmx_mp4.st_a);
}

// Frame delivery

// Number of samples that are there for all tables.
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

// Truncated; what lies outside of the range is cut to it.
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

// Parameter sets of a block as a byte stream to pb_dst, if it isn't null; the size of that stream.
// A set that runs over the block's end is left out, with all behind it.
uint32_t put_parameter_sets(const uint8_t *pb_avc_dcr, uint32_t ui4_left, uint8_t *pb_dst)
{
    uint32_t ui4_hdr_size = 0;
    // Five bits count the sequence parameter sets, eight the picture parameter sets.
    static const uint8_t aui1_masks[] = {0x1F, 0xFF};
    for (const uint8_t ui1_mask : aui1_masks) {
        if (ui4_left < 1) return ui4_hdr_size;
        uint32_t ui4_count = *pb_avc_dcr & ui1_mask;
        ++pb_avc_dcr;
        --ui4_left;
        for (; ui4_count > 0; --ui4_count) {
            if (ui4_left < 2 || get_be16(pb_avc_dcr) > ui4_left - 2) return ui4_hdr_size;
            const uint32_t ui4_length = get_be16(pb_avc_dcr);
            if (pb_dst != nullptr) {
                put_be32(pb_dst + ui4_hdr_size, START_CODE);
                memcpy(pb_dst + ui4_hdr_size + LENGTH_SIZE, pb_avc_dcr + 2, ui4_length);
            }
            ui4_hdr_size += LENGTH_SIZE + ui4_length;
            pb_avc_dcr += 2 + ui4_length;
            ui4_left -= 2 + ui4_length;
        }
    }
    return ui4_hdr_size;
}

// Reads the next sample into a new block, behind the parameter sets of *p_sets if there are any, of
// ui4_head bytes as a byte stream. From here on the frame owns the block, also when the read fails:
// what has not come of it is cleared then, and of a sample that is read in steps the frame tells only
// the part that there is memory for.
bool read_sample(const s_track &tr, const s_st_v *p_sets, uint32_t ui4_head, GOLT_frame_t *pt_frame)
{
    const uint32_t ui4_sample_size = next_size(tr);
    if (ui4_sample_size > LARGEST_SAMPLE) return false;
    const uint32_t ui4_size = ui4_head + ui4_sample_size;
    block_t block = take_block<frame_memory>(ui4_size, ui4_head);
    if (block.pb_data == nullptr) return false;
    if (ui4_head != 0)
        put_parameter_sets(p_sets->pb_hdr, p_sets->ui4_hdr_block_size, block.pb_data);
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

// Lengths of NAL units become start codes. A unit that runs over the sample's end is the last;
// fewer bytes than a length has stay as they are.
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

// The first frame after the start brings the parameter sets; they count as sent whether or not it
// can be read.
bool _dmx_mp4_get_v_frame(GOLT_frame_t *pt_frame)
{
    s_st_v *p_st = &dmx_mp4.st_v;
    uint32_t ui4_hdr_size = 0;
    if (!p_st->b_header_sent)
        ui4_hdr_size = put_parameter_sets(p_st->pb_hdr, p_st->ui4_hdr_block_size, nullptr);
    p_st->b_header_sent = true;
    if (!read_sample(p_st->tr, p_st, ui4_hdr_size, pt_frame)) return false;
    rewrite_lengths(pt_frame->pb_data + ui4_hdr_size, pt_frame->ui4_size - ui4_hdr_size);
    return finish_frame(&p_st->tr, GOLT_FT_VIDEO, pt_frame);
}

bool _dmx_mp4_get_a_frame(GOLT_frame_t *pt_frame)
{
    s_track *p_tr = &dmx_mp4.st_a.tr;
    return read_sample(*p_tr, nullptr, 0, pt_frame) && finish_frame(p_tr, GOLT_FT_AUDIO, pt_frame);
}

void release(s_track *p_tr)
{
    std::free(p_tr->pui4_sample_sizes);
    std::free(p_tr->pui4_sample_offsets);
    std::free(p_tr->pui4_sync_samples);
    std::free(p_tr->pui4_ts);
}

}  // namespace
