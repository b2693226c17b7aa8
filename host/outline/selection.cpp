#include "selection.h"

#include <algorithm>

namespace {

void select_mp4(const Outline &outline, Selection &selection);
std::string why_not_mp4(const Outline &outline, const Track &track, bool *f_unplayable);
void select_matroska(const Outline &outline, Selection &selection);
std::string why_unplayable(const Outline &outline, const Track &track);
void select_mpeg_audio(const Outline &outline, Selection &selection);
std::string why_no_tracks(const Outline &outline);
void note_losses(const Outline &outline, Selection &selection);

std::string isnt_remuxed(const Outline &outline, const Track &track)
{
    return codec_title(outline, track) + " isn't remuxed";
}

}  // namespace

std::optional<size_t> Selection::taken(const Outline &outline, TrackKind kind) const
{
    for (size_t i = 0; i < choices.size(); ++i)
        if (choices[i].fate == Fate::TAKEN && outline.tracks[i].kind == kind) return i;
    return {};
}

bool Selection::is_unplayable(const Outline &outline, TrackKind kind) const
{
    for (size_t i = 0; i < choices.size(); ++i)
        if (choices[i].fate == Fate::UNPLAYABLE && outline.tracks[i].kind == kind) return true;
    return false;
}

Selection select_tracks(const Outline &outline)
{
    Selection selection;
    selection.choices.resize(outline.tracks.size());
    // What wasn't reached is no reason to refuse the file.
    if (outline.f_partial && outline.tracks.empty()) return selection;
    switch (outline.container) {
    case Container::MP4: select_mp4(outline, selection); break;
    case Container::MATROSKA: select_matroska(outline, selection); break;
    case Container::MPEG_AUDIO: select_mpeg_audio(outline, selection); break;
    // What these have is only in their packets.
    case Container::TRANSPORT_STREAM:
        if (outline.transport.packet_size != 192)
            selection.refusal = "its packets have " +
                                std::to_string(outline.transport.packet_size) +
                                " bytes; only those of 192 bytes are remuxed";
        return selection;
    case Container::UNKNOWN: return selection;
    }
    const bool f_something = selection.taken(outline, TrackKind::VIDEO).has_value() ||
                             selection.taken(outline, TrackKind::AUDIO).has_value();
    if (!f_something && selection.refusal.empty()) selection.refusal = why_no_tracks(outline);
    note_losses(outline, selection);
    return selection;
}

namespace {

// The library walks the tracks in the order of the file. It stops when it has both kinds, and at the first
// track that it can't take; a later track of a kind replaces an earlier one.
void select_mp4(const Outline &outline, Selection &selection)
{
    std::optional<size_t> taken[2];  // video, audio
    std::string stopped;             // by which track
    for (size_t i = 0; i < outline.tracks.size(); ++i) {
        const Track &track = outline.tracks[i];
        Choice &choice = selection.choices[i];
        const bool f_media = track.kind == TrackKind::VIDEO || track.kind == TrackKind::AUDIO;
        bool f_unplayable = false;
        choice.reason = f_media ? why_not_mp4(outline, track, &f_unplayable) : kind_name(track);
        if (taken[0] && taken[1]) {
            if (choice.reason.empty()) choice.reason = "another " + kind_name(track) + " track";
            continue;
        }
        if (!stopped.empty()) {
            if (choice.reason.empty())
                choice.reason =
                    "comes after track " + stopped + ", where the library stops looking";
            continue;
        }
        if (!choice.reason.empty() && !f_unplayable) {
            stopped = std::to_string(track.number) + " (" + kind_name(track) + ")";
            continue;
        }
        std::optional<size_t> &place = taken[track.kind == TrackKind::AUDIO ? 1 : 0];
        if (place)
            selection.choices[*place] = {Fate::LEFT_OUT, "a later track of its kind replaces it"};
        choice.fate = f_unplayable ? Fate::UNPLAYABLE : Fate::TAKEN;
        place = i;
    }
    const Mp4Outline &mp4 = outline.mp4;
    if (!mp4.f_moov)
        selection.refusal = mp4.f_64_bit_mdat ? "a media box (mdat) of 64 bits before moov"
                            : mp4.f_open_box
                                ? "no moov: the media box (mdat) goes on to the file's end"
                                : "no moov: the file was cut off";
    else if (mp4.f_64_bit_mdat && !mp4.f_moov_first)
        selection.refusal = "a media box (mdat) of 64 bits before moov isn't skipped";
    else if (!mp4.f_ftyp)
        selection.refusal = "no ftyp box at its start";
}

// Empty: it is taken. *f_unplayable: its frames come out of the library all the same.
std::string why_not_mp4(const Outline &outline, const Track &track, bool *f_unplayable)
{
    const Mp4Details &mp4 = track.mp4;
    if (track.kind == TrackKind::VIDEO && track.codec != "avc1")
        return isnt_remuxed(outline, track);
    if (track.kind == TrackKind::AUDIO && track.codec != "mp4a" && track.codec != "ac-3" &&
        track.codec != "ec-3")
        return isnt_remuxed(outline, track);
    if (track.codec == "mp4a" && (mp4.entry_version != 0 || mp4.object_type == 0))
        return codec_title(outline, track) + " with a QuickTime sample description";
    if (track.kind == TrackKind::VIDEO && track.config.empty()) return "H.264 without avcC";
    if (mp4.f_64_bit_offsets) return "chunk offsets of 64 bits (co64)";
    if (mp4.f_compact_sizes) return "compact sample sizes (stz2)";
    if (mp4.timescale == 0) return "no time scale";
    // From here on the library goes on to the next track.
    *f_unplayable = true;
    if (mp4.samples == 0) return outline.mp4.f_fragmented ? "fragmented MP4" : "no samples";
    if (track.codec == "mp4a" && mp4.object_type != 0x40 && mp4.object_type != 0x6B)
        return isnt_remuxed(outline, track);
    constexpr size_t LENGTH_SIZE_AT = 4;  // ISO/IEC 14496-15, lengthSizeMinusOne
    const bool f_short_lengths = track.kind == TrackKind::VIDEO &&
                                 track.config.size() > LENGTH_SIZE_AT &&
                                 (track.config[LENGTH_SIZE_AT] & 3) != 3;
    if (f_short_lengths) return "NAL units with lengths of less than 4 bytes";
    if (track.number == 0) return "no track ID";
    *f_unplayable = false;
    return "";
}

// The first video track, whatever it is, and the first audio track of a codec that is known.
void select_matroska(const Outline &outline, Selection &selection)
{
    constexpr size_t MOST_ENTRIES = 20;
    bool f_video = false, f_audio = false;
    for (size_t i = 0; i < outline.tracks.size(); ++i) {
        const Track &track = outline.tracks[i];
        Choice &choice = selection.choices[i];
        const bool f_is_audio = track.kind == TrackKind::AUDIO;
        if (!f_is_audio && track.kind != TrackKind::VIDEO) {
            choice.reason = kind_name(track);
            continue;
        }
        const auto has = [&](const char *part) {
            return track.codec.find(part) != std::string::npos;
        };
        const bool f_known = f_is_audio ? has("A_AC3") || has("A_AAC") || has("A_MPEG/L3")
                                        : track.codec == "V_MPEG4/ISO/AVC";
        bool &f_taken = f_is_audio ? f_audio : f_video;
        if (!f_known)
            choice.reason = isnt_remuxed(outline, track);
        else if (f_taken)
            choice.reason = "another " + kind_name(track) + " track";
        else if (i >= MOST_ENTRIES)
            choice.reason = "comes after the first 20 tracks";
        else
            choice.reason = why_unplayable(outline, track);
        // The first video track is the library's whatever its codec; of audio it looks at the codec.
        if (f_taken || i >= MOST_ENTRIES || (f_is_audio && !f_known)) continue;
        f_taken = true;
        choice.fate = choice.reason.empty() ? Fate::TAKEN : Fate::UNPLAYABLE;
    }
}

std::string why_unplayable(const Outline &outline, const Track &track)
{
    const MatroskaDetails &matroska = track.matroska;
    const std::string title = codec_title(outline, track);
    if (matroska.f_encryption) return title + ", encrypted";
    if (matroska.f_compression) return title + " whose frames the container has compressed";
    const std::vector<uint8_t> sync_word = {0x0B, 0x77};
    if (!matroska.stripped.empty() && !(title == "AC-3" && matroska.stripped == sync_word))
        return title + " whose frames lack their first bytes (header stripping)";
    if (track.number == 0 || track.number > 255) return "track number above 255";
    return "";
}

void select_mpeg_audio(const Outline &outline, Selection &selection)
{
    const MpegAudioOutline &audio = outline.mpeg_audio;
    if (outline.tracks.empty() || !audio.first_frame) {
        selection.refusal = "no MPEG audio frame follows its tag";
        return;
    }
    const Track &track = outline.tracks.front();
    Choice &choice = selection.choices.front();
    if (audio.version != 10)
        choice.reason = codec_title(outline, track) + " (" + std::to_string(track.sample_rate) +
                        " Hz) isn't remuxed";
    else if (audio.id3v2_tags > 1)
        choice.reason = "it begins with several ID3 tags, and only one is skipped";
    else if (*audio.first_frame != audio.id3v2_size)
        choice.reason = std::to_string(*audio.first_frame - audio.id3v2_size) +
                        " bytes that belong to no frame come before the first one";
    if (!choice.reason.empty()) selection.refusal = choice.reason;
    choice.fate = choice.reason.empty() ? Fate::TAKEN : Fate::LEFT_OUT;
}

bool is_media(const Track &track)
{
    return track.kind == TrackKind::VIDEO || track.kind == TrackKind::AUDIO;
}

std::string why_no_tracks(const Outline &outline)
{
    if (outline.mp4.f_fragmented) return "fragmented MP4 isn't remuxed";
    if (outline.container == Container::MATROSKA && !outline.matroska.first_cluster)
        return outline.tracks.empty() ? "no tracks: the file was cut off"
                                      : "no cluster: the file was cut off";
    if (outline.mp4.f_moov_cut) return "moov was cut off";
    if (std::none_of(outline.tracks.begin(), outline.tracks.end(), is_media))
        return "it has neither video nor audio";
    return "";
}

// "track 2: Opus isn't remuxed", "track 3, AAC: another audio track"
std::string text_of(const Outline &outline, size_t index, const Choice &choice)
{
    const Track &track = outline.tracks[index];
    const std::string title = codec_title(outline, track);
    const bool f_named = choice.reason.compare(0, title.size(), title) == 0;
    return "track " + std::to_string(track.number) + (f_named ? ": " : ", " + title + ": ") +
           choice.reason;
}

void note_losses(const Outline &outline, Selection &selection)
{
    std::string all;                // of what is lost
    std::vector<std::string> more;  // tracks besides the one that is taken
    const auto note = [&](size_t number, const std::string &what) {
        if (number > 0)
            more.push_back(std::to_string(number) + " " + what +
                           (number == 1 ? " track" : " tracks"));
    };
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        size_t further = 0;
        const std::optional<size_t> taken = selection.taken(outline, kind);
        for (size_t i = 0; i < outline.tracks.size(); ++i) {
            if (outline.tracks[i].kind != kind || selection.choices[i].fate == Fate::TAKEN)
                continue;
            const std::string text = text_of(outline, i, selection.choices[i]);
            if (!taken)
                selection.losses.push_back(kind_name(outline.tracks[i]) + ": " + text);
            else if (i < *taken)
                selection.notes.push_back(kind_name(outline.tracks[i]) + ": " + text);
            else
                ++further;
            if (!taken) all += (all.empty() ? "" : "; ") + text;
        }
        note(further, kind == TrackKind::VIDEO ? "further video" : "further audio");
    }
    const auto is_subtitles = [](const Track &track) {
        return track.kind == TrackKind::SUBTITLES && !track.f_chapters;
    };
    note(static_cast<size_t>(
             std::count_if(outline.tracks.begin(), outline.tracks.end(), is_subtitles)),
         "subtitle");
    selection.notes.insert(selection.notes.end(), more.begin(), more.end());
    const bool f_nothing =
        !selection.taken(outline, TrackKind::VIDEO) && !selection.taken(outline, TrackKind::AUDIO);
    if (f_nothing && selection.refusal.empty()) selection.refusal = "nothing to remux: " + all;
}

}  // namespace
