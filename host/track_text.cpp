#include "track_text.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/text.h"
#include "stream/time_text.h"

namespace {

constexpr int64_t NS_PER_MS = 1000000;

std::string details_of(const Outline &outline, const Track &track);
std::string audio_details_of(const Outline &outline, const Track &track);
std::string edits_text(const Outline &outline, const Mp4Details &mp4);
std::string container_text(const Outline &outline);
std::string first_frame_text(const MpegAudioOutline &audio);
std::string structure_text(const Outline &outline);
std::string attachment_text(const Attachment &attachment);
Json attachments_json(const Outline &outline);
Json track_json(const Outline &outline, const Track &track, const Choice &choice);

std::string ns_text(int64_t ns)
{
    return time_text(ns / NS_PER_MS);
}

}  // namespace

std::string tracks_text(const Outline &outline, const Selection &selection)
{
    std::string text;
    for (size_t i = 0; i < outline.tracks.size(); ++i) {
        const Track &track = outline.tracks[i];
        const Choice &choice = selection.choices[i];
        text += fmt::format("track {:<5} {}: {}\n", track.number, kind_name(track),
                            details_of(outline, track));
        text += choice.fate == Fate::TAKEN
                    ? "            remuxed\n"
                    : fmt::format("            not remuxed: {}\n", choice.reason);
    }
    if (outline.more_tracks > 0)
        text += fmt::format("            and {}\n", counted(outline.more_tracks, "further track"));
    return text;
}

std::string file_text(const Outline &outline, const Selection &selection)
{
    const Seeking seeking = seeking_of(outline, selection);
    std::string text = fmt::format("container   {}\n", container_text(outline));
    if (outline.chapters.value_or(0) > 0)
        text += fmt::format("chapters    {}\n", *outline.chapters);
    if (!seeking.reason.empty()) text += fmt::format("seeking     {}\n", seeking.reason);
    for (const Attachment &attachment : outline.attachments)
        text += fmt::format("attached    {}\n", attachment_text(attachment));
    if (outline.more_attachments > 0)
        text +=
            fmt::format("            and {}\n", counted(outline.more_attachments, "further file"));
    return text;
}

Seeking seeking_of(const Outline &outline, const Selection &selection)
{
    const std::optional<size_t> video = selection.taken(outline, TrackKind::VIDEO);
    const MatroskaOutline &matroska = outline.matroska;
    if (!selection.refusal.empty()) return {false, ""};
    switch (outline.container) {
    case Container::MP4:
        if (video && outline.tracks[*video].mp4.sync_samples)
            return {true, "by " + counted(*outline.tracks[*video].mp4.sync_samples, "key picture")};
        return {true, "at every sample"};
    case Container::MATROSKA:
        if (!video) return {false, "audio only: the file is read from its start"};
        if (!matroska.f_cues) return {false, "no Cues: the file is read from its start"};
        if (!matroska.f_cues_announced)
            return {false, "nothing points to the Cues: the file is read from its start"};
        return {true, "by " + counted(matroska.cues.size() + matroska.more_cues, "cue")};
    case Container::MPEG_AUDIO: return {false, "no index: the file is read from its start"};
    case Container::TRANSPORT_STREAM: return {false, "its packets have no times"};
    case Container::UNKNOWN: break;
    }
    return {false, ""};
}

void add_tracks(Json &json, const Outline &outline, const Selection &selection)
{
    const Seeking seeking = seeking_of(outline, selection);
    json["container"] = container_text(outline);
    json["chapters"] = outline.chapters ? Json(*outline.chapters) : Json();
    json["indexed"] = seeking.f_indexed;
    json["seeking"] = seeking.reason.empty() ? Json() : Json(seeking.reason);
    json["fragmented"] = outline.mp4.f_fragmented;
    json["duration_is_estimate"] = outline.mpeg_audio.f_estimate;
    json["attachments"] = attachments_json(outline);
    json["tracks"] = Json::array();
    for (size_t i = 0; i < outline.tracks.size(); ++i)
        json["tracks"].push_back(track_json(outline, outline.tracks[i], selection.choices[i]));
}

namespace {

std::string details_of(const Outline &outline, const Track &track)
{
    std::string text = codec_title(outline, track);
    const std::string profile = h264_profile(outline, track);
    if (!profile.empty()) text += fmt::format(" {}, level {}", profile, h264_level(outline, track));
    if (track.width != 0) text += fmt::format(", {} x {} pixels", track.width, track.height);
    if (track.mp4.rotation != 0) text += fmt::format(", turned by {} degrees", track.mp4.rotation);
    if (track.kind == TrackKind::VIDEO) {
        if (const auto rate = mean_frame_rate(track))
            text += fmt::format(", {:.3f} frames/s", static_cast<double>(*rate) / 1000);
    }
    if (track.kind == TrackKind::AUDIO) text += audio_details_of(outline, track);
    if (track.duration_ns) text += ", " + ns_text(*track.duration_ns);
    if (!track.language.empty() && track.language != "und") text += ", " + track.language;
    if (!track.f_enabled) text += ", disabled";
    text += edits_text(outline, track.mp4);
    return text;
}

std::string audio_details_of(const Outline &outline, const Track &track)
{
    const AudioFigures figures = audio_figures(outline, track);
    std::string text;
    if (figures.channels != 0) text += ", " + counted(figures.channels, "channel");
    if (figures.sample_rate != 0) text += fmt::format(", {} Hz", figures.sample_rate);
    return text;
}

// The usual lists: nothing for a while, then the track from some place on.
std::string edits_text(const Outline &outline, const Mp4Details &mp4)
{
    constexpr int32_t USUAL_RATE = 0x10000;
    int64_t delay_ms = 0, skipped_ms = 0;
    size_t media_entries = 0;
    bool f_usual = mp4.more_edits == 0;
    for (const Edit &edit : mp4.edits) {
        if (edit.media_time == -1 && media_entries == 0 && outline.mp4.timescale != 0) {
            delay_ms += static_cast<int64_t>(static_cast<double>(edit.duration) * 1000 /
                                             outline.mp4.timescale);
        } else if (media_entries++ == 0 && edit.media_time >= 0 && mp4.timescale != 0) {
            skipped_ms =
                static_cast<int64_t>(static_cast<double>(edit.media_time) * 1000 / mp4.timescale);
            f_usual = f_usual && edit.rate == USUAL_RATE;
        } else {
            f_usual = false;
        }
    }
    if (!f_usual)
        return fmt::format("; edit list of {} entries", mp4.edits.size() + mp4.more_edits);
    std::string text;
    if (delay_ms != 0) text += fmt::format(", delayed by {} ms", delay_ms);
    if (skipped_ms != 0) text += fmt::format(", its first {} ms skipped", skipped_ms);
    return text.empty() ? "" : "; edit list" + text;
}

std::string container_text(const Outline &outline)
{
    switch (outline.container) {
    case Container::MP4: return "MP4" + structure_text(outline);
    case Container::MATROSKA:
        return (outline.matroska.doc_type == "webm" ? "WebM" : "Matroska") +
               structure_text(outline);
    case Container::MPEG_AUDIO: return "MPEG audio" + first_frame_text(outline.mpeg_audio);
    case Container::TRANSPORT_STREAM:
        return fmt::format("transport stream, packets of {} bytes", outline.transport.packet_size);
    case Container::UNKNOWN: break;
    }
    return "unknown";
}

std::string structure_text(const Outline &outline)
{
    const Mp4Outline &mp4 = outline.mp4;
    const MatroskaOutline &matroska = outline.matroska;
    std::string text;
    if (mp4.f_moov)
        text += mp4.f_moov_first ? ", headers before the media" : ", headers after the media";
    if (mp4.f_fragmented) text += ", fragmented";
    if (mp4.f_64_bit_mdat) text += ", media box of 64 bits";
    if (!matroska.muxing_app.empty()) text += ", by " + matroska.muxing_app;
    if (outline.container == Container::MATROSKA && matroska.timestamp_scale != NS_PER_MS)
        text += fmt::format(", ticks of {} ns", matroska.timestamp_scale);
    const uint64_t end = std::max(matroska.segment_end.value_or(0), mp4.mdat_end.value_or(0));
    if (outline.size != 0 && end > outline.size)
        text += fmt::format(", cut off: {} of {} are missing", counted(end - outline.size, "byte"),
                            end);
    return text;
}

std::string first_frame_text(const MpegAudioOutline &audio)
{
    static const char *const NAMES[] = {"", "Xing", "Info", "VBRI"};
    std::string text;
    if (audio.id3v2_tags != 0) text += ", ID3v2";
    if (audio.f_id3v1) text += ", ID3v1";
    if (audio.ape_size != 0) text += ", APEv2";
    const std::string header = NAMES[static_cast<size_t>(audio.header)];
    if (!header.empty()) text += ", " + header + " header";
    if (audio.frames) text += fmt::format(" of {}", counted(*audio.frames, "frame"));
    if (audio.bit_rate != 0)
        text += fmt::format(", first frame at {} kbit/s", audio.bit_rate / 1000);
    return text;
}

std::string attachment_text(const Attachment &attachment)
{
    std::string text;
    for (const std::string &part : {attachment.name, attachment.media_type})
        if (!part.empty()) text += printable(part) + ", ";
    return text + counted(attachment.size, "byte");
}

Json text_or_null(const std::string &text)
{
    return text.empty() ? Json() : Json(text);
}

Json attachments_json(const Outline &outline)
{
    Json attachments = Json::array();
    for (const Attachment &attachment : outline.attachments)
        attachments.push_back({{"name", text_or_null(attachment.name)},
                               {"media_type", text_or_null(attachment.media_type)},
                               {"size", attachment.size}});
    return attachments;
}

template <typename Number> Json number_or_null(Number number)
{
    return number == 0 ? Json() : Json(number);
}

// A whole number where it is one.
Json ms_of(double ticks, uint32_t timescale)
{
    const double ms = ticks * 1000 / timescale;
    constexpr double MOST = 1e15;
    const auto whole = static_cast<int64_t>(std::clamp(ms, -MOST, MOST));
    return ms == static_cast<double>(whole) ? Json(whole) : Json(ms);
}

Json edits_json(const Outline &outline, const Mp4Details &mp4)
{
    Json edits = Json::array();
    if (mp4.timescale == 0 || outline.mp4.timescale == 0) return edits;
    for (const Edit &edit : mp4.edits) {
        const Json duration_ms = ms_of(static_cast<double>(edit.duration), outline.mp4.timescale);
        const Json media_ms = ms_of(static_cast<double>(edit.media_time), mp4.timescale);
        edits.push_back({{"duration_ms", duration_ms},
                         {"media_ms", edit.media_time == -1 ? Json() : media_ms},
                         {"rate", static_cast<double>(edit.rate) / 0x10000}});
    }
    return edits;
}

Json track_json(const Outline &outline, const Track &track, const Choice &choice)
{
    Json json = {
        {"number", track.number},
        {"kind", kind_name(track)},
        {"codec", text_or_null(track.codec)},
        {"name", codec_title(outline, track)},
        {"remuxed", choice.fate == Fate::TAKEN},
        {"reason", text_or_null(choice.reason)},
        {"language", text_or_null(track.language)},
        {"enabled", track.f_enabled},
        {"duration_ms", track.duration_ns ? Json(*track.duration_ns / NS_PER_MS) : Json()}};
    if (track.kind == TrackKind::VIDEO) {
        const std::optional<uint64_t> rate = mean_frame_rate(track);
        json["profile"] = text_or_null(h264_profile(outline, track));
        json["level"] = text_or_null(h264_level(outline, track));
        json["width"] = number_or_null(track.width);
        json["height"] = number_or_null(track.height);
        json["rotation"] = track.mp4.rotation;
        json["frames_per_1000_s"] = rate ? Json(*rate) : Json();
    }
    if (track.kind == TrackKind::AUDIO) {
        const AudioFigures figures = audio_figures(outline, track);
        json["channels"] = number_or_null(figures.channels);
        json["sample_rate"] = number_or_null(figures.sample_rate);
    }
    if (outline.container == Container::MP4) {
        json["samples"] = track.mp4.samples;
        json["edits"] = edits_json(outline, track.mp4);
    }
    return json;
}

}  // namespace
