#include "dmx_mp4_walk.h"

#include <cstdio>

#include "dmx_mp4_box.h"
#include "dmx_mp4_i.h"
#include "dmx_mp4_stbl.h"

namespace mp4 {

namespace {

constexpr uint32_t NO_POSITION = 0xFFFFFFFF;

enum track_result_t { TRACK_OPENED, TRACK_OF_NO_USE, TRACK_UNREADABLE };

bool _dmx_mp4_parse_tracks(uint32_t ui4_pos, uint32_t ui4_end);
bool _dmx_mp4_parse_track(uint32_t ui4_pos, uint32_t *pui4_tracks, uint32_t ui4_end);
bool _dmx_mp4_parse_mdia(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx);
track_result_t open_track(uint32_t ui4_pos, uint32_t ui4_duration, s_parse_ctx *p_ctx);
bool parse_minf(uint32_t ui4_pos, uint32_t ui4_last, uint32_t ui4_end, s_parse_ctx *p_ctx);

}  // namespace

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
            // The track records show whether there was anything useful in it.
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

namespace {

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
            const track_result_t result = open_track(ui4_pos, ui4_duration, p_ctx);
            if (result == TRACK_UNREADABLE) return false;
            if (result == TRACK_OF_NO_USE) break;
            ui4_boxes |= HDLR;
        } else if (ui4_type == box_type("minf")) {
            if (parse_minf(ui4_pos, held_last_byte(ui4_pos, ui4_size, ui4_end), ui4_end, p_ctx))
                ui4_boxes |= MINF;
        }
        if (!step_over(&ui4_pos, ui4_size)) break;
    }
    return has_all_boxes("_dmx_mp4_parse_mdia", MDHD | HDLR | MINF, ui4_boxes);
}

// "hdlr" at ui4_pos: opens the record of the track that it names.
track_result_t open_track(uint32_t ui4_pos, uint32_t ui4_duration, s_parse_ctx *p_ctx)
{
    uint32_t ui4_handler = 0;
    if (!read_be32_at(uint64_t{ui4_pos} + 16, &ui4_handler)) return TRACK_UNREADABLE;
    const bool f_video = ui4_handler == box_type("vide");
    if (!f_video && ui4_handler != box_type("soun")) return TRACK_OF_NO_USE;
    // If the time scale is 0 or comes later, its frames have no times.
    if (p_ctx->ui4_tscale == 0) return TRACK_OF_NO_USE;
    p_ctx->ui4_track = f_video ? TRACK_VIDEO : TRACK_AUDIO;
    p_ctx->p_tr = f_video ? &dmx_mp4.st_v.tr : &dmx_mp4.st_a.tr;
    p_ctx->p_tr->ui4_sample_idx = 0;
    p_ctx->p_tr->ui4_track_id = p_ctx->ui4_track_id;
    p_ctx->p_tr->ui4_duration =
        static_cast<uint32_t>(uint64_t{ui4_duration} * 1000 / p_ctx->ui4_tscale);
    return TRACK_OPENED;
}

// "minf" at ui4_pos, which ends at ui4_last. The search for "stbl" is bounded by ui4_end, the end of
// "mdia": where it leaves "minf" it counts as an overhang.
bool parse_minf(uint32_t ui4_pos, uint32_t ui4_last, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    if (p_ctx->p_tr == nullptr || p_ctx->ui4_tscale == 0) return false;
    const bool f_may_leave = can_overhang();
    uint32_t ui4_boxpos = ui4_pos + BOX_HEADER_SIZE;
    const uint32_t ui4_boxsiz =
        _dmx_mp4_goto_box(box_type("stbl"), &ui4_boxpos, f_may_leave ? ui4_end : ui4_last);
    const bool f_left = ui4_boxpos > ui4_last;
    if (f_left && f_may_leave) take_overhang();
    if (ui4_boxsiz == 0) return false;
    if (!_dmx_mp4_parse_stbl(ui4_boxpos + BOX_HEADER_SIZE,
                             last_byte(ui4_boxpos, ui4_boxsiz, f_left ? ui4_end : ui4_last), p_ctx))
        return false;
    *p_ctx->pui4_tracks |= p_ctx->ui4_track;
    return true;
}

}  // namespace

}  // namespace mp4
