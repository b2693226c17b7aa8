#include "stage_hints.h"

#include <algorithm>

#include <fmt/format.h>

#include "ts_time.h"

namespace {

constexpr int64_t WHOLE_RATE = 0x10000;  // 16.16 fixed point
constexpr int64_t EMPTY = -1;            // media_time where nothing is shown

bool is_start_alone(const Mp4Details &track)
{
    bool f_media = false;
    for (const Edit &edit : track.edits) {
        if (f_media || (edit.media_time != EMPTY && edit.rate != WHOLE_RATE)) return false;
        f_media = edit.media_time != EMPTY;
    }
    return track.more_edits == 0;
}

bool is_aac(const Track &track)
{
    constexpr uint8_t MPEG4 = 0x40, MPEG2_FIRST = 0x66,
                      MPEG2_LAST = 0x68;  // object types of "esds"
    const uint8_t type = track.mp4.object_type;
    return track.codec.compare(0, 5, "A_AAC") == 0 || type == MPEG4 ||
           (type >= MPEG2_FIRST && type <= MPEG2_LAST);
}

golt::StreamHints hints_of(const Track &track, const Outline &outline, StageSetup &setup)
{
    golt::StreamHints hints;
    hints.offset = edited_offset(track.mp4, outline.mp4.timescale);
    if (track.kind == TrackKind::VIDEO || is_aac(track)) {
        hints.config = track.config.data();
        hints.config_size = track.config.size();
    }
    if (!is_start_alone(track.mp4))
        setup.notes.push_back(fmt::format(
            "edit list of track {}: only the start is applied, all of the track is written",
            track.number));
    return hints;
}

}  // namespace

StageSetup stage_setup(const Outline &outline, const Selection &selection, bool f_packets)
{
    StageSetup setup;
    setup.hints.mode = f_packets ? golt::StageMode::PASS : golt::StageMode::REMUX;
    if (const auto index = selection.taken(outline, TrackKind::VIDEO))
        setup.hints.video = hints_of(outline.tracks[*index], outline, setup);
    const auto index = selection.taken(outline, TrackKind::AUDIO);
    if (!index) return setup;
    const Track &track = outline.tracks[*index];
    setup.hints.audio = hints_of(track, outline, setup);
    const bool f_told = outline.container != Container::MATROSKA ||
                        track.matroska.default_duration_ns.value_or(0) > 0;
    setup.hints.audio_durations = f_told ? golt::Durations::TOLD : golt::Durations::NOT_TOLD;
    if (outline.container == Container::MPEG_AUDIO)
        setup.hints.audio_durations = golt::Durations::COUNTED;
    return setup;
}

bool are_edits_out_of_reach(const Source &source, const Outline &outline)
{
    // A header at the end, or one with long tables.
    const bool f_all_read = outline.mp4.f_moov && !outline.f_partial;
    return outline.container == Container::MP4 && !source.is_seekable() && !f_all_read;
}
