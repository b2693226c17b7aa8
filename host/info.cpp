#include "info.h"

#include <fmt/format.h>

#include "io/text.h"
#include "several.h"
#include "stream/scan.h"
#include "stream/time_text.h"
#include "stream_info.h"
#include "track_text.h"

namespace {

using Content = PELA::MediaBuffer::ContentInfo;

/// Adds up what passes; without a scan nothing does.
class Scanner final : public FrameUser {
public:
    Totals totals;

    void on_frame(const StreamFrame &frame) override { totals[frame.pes.pid].add(frame); }
    void on_stream(uint16_t pid, uint8_t stream_type) override { m_types[pid] = stream_type; }
    /// Its stream_type; 0: none was announced.
    uint8_t type_of(uint16_t pid) const
    {
        const auto found = m_types.find(pid);
        return found == m_types.end() ? 0 : found->second;
    }

private:
    std::map<uint16_t, uint8_t> m_types;
};

/// What reading all of an input has come to.
struct Scan {
    Scanner scanner;
    uint64_t frames = 0;
    uint64_t bytes = 0;  // of the stream
    std::string fault;
};

/// The two streams, by the headers or, if these don't say, by the scan.
struct Streams {
    Codec video, audio;
    uint32_t video_pid, audio_pid;
};

/// What is known of one input.
struct Subject {
    const InputFile &file;
    Content content = {};
    Streams streams = {};
    bool f_scanned = false;
};

ExitStatus info_of(const InfoOptions &options, const InputOptions &input, Printer &printer);
ExitStatus refuse(const InfoOptions &options, const InputFile &file, Printer &printer);
std::string scan_text(const Scan &scan);
Json scan_json(const Scan &scan);
Streams choose_streams(const Input &input, const Content &content, const Totals &totals);
std::string info_text(const Subject &subject);
std::string summary_text(const Subject &subject);
const char *none_text(const Subject &subject);
std::string video_text(const Subject &subject);
std::string audio_text(const Subject &subject);
int64_t duration_ms(const Subject &subject);
std::optional<uint64_t> frame_rate(const Subject &subject);
uint64_t channels(const Subject &subject);
Json info_json(const Subject &subject);
Json number_or_null(uint64_t number);
bool are_several(const InfoOptions &options);

}  // namespace

ExitStatus info(const InfoOptions &options, Printer &printer)
{
    return for_each_input(options.paths, options.f_json, printer, [&](const std::string &path) {
        InputOptions input = options.input;
        input.path = path;
        return info_of(options, input, printer);
    });
}

namespace {

ExitStatus info_of(const InfoOptions &options, const InputOptions &input_options, Printer &printer)
{
    InputFile file(input_options);
    file.read_details();
    if (file.format().is_plain_stream())
        return stream_info(file, options.f_json, are_several(options), printer);
    if (!file.selection().refusal.empty() && file.source().fault().empty())
        return refuse(options, file, printer);
    Input input(input_options, std::move(file));
    Scan scan;
    StreamFrames frames(0, scan.scanner);
    Pump pump(input, frames);
    if (options.f_scan) {
        read_all(input, pump, frames);
        if (pump.frames() == 0) throw NotDone(input.source().path(), pump.why_nothing_came());
        scan.frames = pump.frames();
        scan.bytes = frames.bytes();
        scan.fault = pump.fault_in_input();
    }

    const Subject subject = {input.file(), pump.content(),
                             choose_streams(input, pump.content(), scan.scanner.totals),
                             options.f_scan};
    const bool f_nothing =
        subject.streams.video == Codec::UNKNOWN && subject.streams.audio == Codec::UNKNOWN;
    if (f_nothing && input.format().f_times && input.outline().container == Container::UNKNOWN)
        throw NotDone(input.source().path(), pump.why_nothing_came());
    if (options.f_json) {
        Json json = info_json(subject);
        if (options.f_scan) json["scan"] = scan_json(scan);
        printer.print(json_text(json, are_several(options) ? -1 : 2));
    } else {
        printer.print(are_several(options) ? summary_text(subject) : info_text(subject));
        if (options.f_scan) printer.print(scan_text(scan));
    }
    printer.flush();
    return end_command(input.source().path(), scan.fault);
}

// Prints what is in the file all the same.
ExitStatus refuse(const InfoOptions &options, const InputFile &file, Printer &printer)
{
    const Subject subject = {file};
    if (options.f_json)
        printer.print(json_text(info_json(subject), are_several(options) ? -1 : 2));
    else if (!are_several(options))
        printer.print(info_text(subject));
    printer.flush();
    say(fmt::format("golt: {}: {}", file.source().path(), file.selection().refusal));
    return EXIT_NOT_DONE;
}

bool are_several(const InfoOptions &options)
{
    return options.paths.size() > 1;
}

std::string scan_text(const Scan &scan)
{
    std::string text;
    for (const auto &[pid, totals] : scan.scanner.totals)
        text += fmt::format("PID {:#05x}   {}, {}\n", pid,
                            stream_type_name(scan.scanner.type_of(pid)), totals_text(totals));
    return text + fmt::format("output      {}\n", counted(scan.bytes, "byte"));
}

Json scan_json(const Scan &scan)
{
    Json json = {{"frames", scan.frames}, {"stream_bytes", scan.bytes}};
    json["streams"] = Json::array();
    for (const auto &[pid, totals] : scan.scanner.totals) {
        Json stream = totals_json(totals);
        stream["stream_type"] = scan.scanner.type_of(pid);
        stream["name"] = stream_type_name(scan.scanner.type_of(pid));
        json["streams"].push_back(stream);
    }
    json["fault"] = scan.fault.empty() ? Json() : Json(scan.fault);
    return json;
}

Streams choose_streams(const Input &input, const Content &content, const Totals &totals)
{
    Streams streams = {Codec::UNKNOWN, Codec::UNKNOWN, content.videoPid, content.audioPid};
    switch (content.videoCodec) {
    case PELA::VIDEO_CODEC_H264: streams.video = Codec::H264; break;
    case PELA::VIDEO_CODEC_MPEG2: streams.video = Codec::MPEG2; break;
    case PELA::VIDEO_CODEC_UNKNOWN: break;
    }
    switch (content.audioCodec) {
    case PELA::AUDIO_CODEC_MP3: streams.audio = Codec::MPEG_AUDIO; break;
    case PELA::AUDIO_CODEC_AAC: streams.audio = Codec::AAC; break;
    case PELA::AUDIO_CODEC_DD: streams.audio = Codec::AC3; break;
    case PELA::AUDIO_CODEC_DDP: streams.audio = Codec::EAC3; break;
    case PELA::AUDIO_CODEC_UNKNOWN: break;
    }
    const Selection &selection = input.selection();
    if (selection.is_unplayable(input.outline(), TrackKind::VIDEO)) streams.video = Codec::UNKNOWN;
    if (selection.is_unplayable(input.outline(), TrackKind::AUDIO)) streams.audio = Codec::UNKNOWN;
    if (streams.video != Codec::UNKNOWN || streams.audio != Codec::UNKNOWN) return streams;
    for (const auto &[pid, total] : totals) {
        if (total.codec == Codec::UNKNOWN) continue;
        Codec &codec = is_video(total.codec) ? streams.video : streams.audio;
        if (codec != Codec::UNKNOWN) continue;
        codec = total.codec;
        (is_video(codec) ? streams.video_pid : streams.audio_pid) = pid;
    }
    return streams;
}

std::string info_text(const Subject &subject)
{
    const InputFile &file = subject.file;
    const Source &source = file.source();
    std::string text = fmt::format("input       {}\nformat      {}\n", printable(source.path()),
                                   file.format().name);
    text += source.size() == 0 ? "size        unknown\n"
                               : fmt::format("size        {}\n", counted(source.size(), "byte"));
    text += fmt::format("duration    {}{}\n",
                        duration_ms(subject) == 0 ? "unknown" : time_text(duration_ms(subject)),
                        file.outline().mpeg_audio.f_estimate ? " (estimate)" : "");
    text += fmt::format("video       {}\n", video_text(subject));
    text += fmt::format("audio       {}\n", audio_text(subject));
    if (file.outline().container == Container::UNKNOWN) return text;
    return text + file_text(file.outline(), file.selection()) +
           tracks_text(file.outline(), file.selection());
}

// One line.
std::string summary_text(const Subject &subject)
{
    const Selection &selection = subject.file.selection();
    std::string text =
        fmt::format("{}: {}", printable(subject.file.source().path()), subject.file.format().title);
    if (duration_ms(subject) != 0) text += ", " + time_text(duration_ms(subject));
    text += fmt::format("; video: {}; audio: {}", video_text(subject), audio_text(subject));
    for (const std::vector<std::string> *lines : {&selection.losses, &selection.notes})
        for (const std::string &line : *lines)
            text += "; not remuxed: " + line;
    return text + "\n";
}

// Of packets that pass as they are nothing is known before they are read.
const char *none_text(const Subject &subject)
{
    const bool f_known = subject.file.format().f_times || subject.f_scanned;
    return f_known ? "none" : "not known without --scan";
}

std::string video_text(const Subject &subject)
{
    const Content &content = subject.content;
    if (subject.streams.video == Codec::UNKNOWN) return none_text(subject);
    std::string text = codec_name(subject.streams.video);
    if (content.width != 0) text += fmt::format(", {} x {} pixels", content.width, content.height);
    if (content.pixelAspectDenominator != 0)
        text += fmt::format(", pixel aspect {}:{}", content.pixelAspectNumerator,
                            content.pixelAspectDenominator);
    if (const auto rate = frame_rate(subject))
        text += fmt::format(", {:.3f} frames/s", static_cast<double>(*rate) / 1000);
    return text + fmt::format(", PID {:#x}", subject.streams.video_pid);
}

std::string audio_text(const Subject &subject)
{
    const Content &content = subject.content;
    if (subject.streams.audio == Codec::UNKNOWN) return none_text(subject);
    std::string text = codec_name(subject.streams.audio);
    if (channels(subject) != 0) text += ", " + counted(channels(subject), "channel");
    if (content.audioSampleRate != 0) text += fmt::format(", {} Hz", content.audioSampleRate);
    return text + fmt::format(", PID {:#x}", subject.streams.audio_pid);
}

// The library takes Matroska's ticks for milliseconds, whatever they are, and knows none of MP3.
int64_t duration_ms(const Subject &subject)
{
    constexpr int64_t NS_PER_MS = 1000000;
    const Outline &outline = subject.file.outline();
    const int64_t own = outline.duration_ns.value_or(0) / NS_PER_MS;
    const bool f_mp4 = outline.container == Container::MP4;
    return own == 0 || (f_mp4 && subject.content.duration != 0) ? subject.content.duration : own;
}

// Frames over duration; the library's own figure drops the fraction of the last second.
std::optional<uint64_t> frame_rate(const Subject &subject)
{
    const Outline &outline = subject.file.outline();
    const auto video = subject.file.selection().taken(outline, TrackKind::VIDEO);
    if (video) return mean_frame_rate(outline.tracks[*video]);
    if (subject.content.framesPerKiloSeconds == 0) return {};
    return subject.content.framesPerKiloSeconds;
}

// In MP4 the library goes by a field that muxers fill with 2 whatever there is.
uint64_t channels(const Subject &subject)
{
    const Outline &outline = subject.file.outline();
    const auto audio = subject.file.selection().taken(outline, TrackKind::AUDIO);
    const uint32_t own = audio ? audio_figures(outline, outline.tracks[*audio]).channels : 0;
    return own != 0 ? own : subject.content.numAudioChannels;
}

Json info_json(const Subject &subject)
{
    const InputFile &file = subject.file;
    const Content &content = subject.content;
    const Streams &streams = subject.streams;
    Json json = json_document("golt.info/1");
    json["input"] = file.source().path();
    json["format"] = file.format().name;
    json["size"] = number_or_null(file.source().size());
    json["duration_ms"] = number_or_null(static_cast<uint64_t>(duration_ms(subject)));
    json["video"] = nullptr;
    if (streams.video != Codec::UNKNOWN) {
        Json &video =
            json["video"] = {{"codec", codec_id(streams.video)}, {"pid", streams.video_pid}};
        video["width"] = number_or_null(content.width);
        video["height"] = number_or_null(content.height);
        video["pixel_aspect"] = nullptr;
        if (content.pixelAspectDenominator != 0)
            video["pixel_aspect"] = {content.pixelAspectNumerator, content.pixelAspectDenominator};
        video["frames_per_1000_s"] = number_or_null(frame_rate(subject).value_or(0));
    }
    json["sound"] = nullptr;
    if (streams.audio != Codec::UNKNOWN) {
        Json &audio =
            json["sound"] = {{"codec", codec_id(streams.audio)}, {"pid", streams.audio_pid}};
        audio["channels"] = number_or_null(channels(subject));
        audio["sample_rate"] = number_or_null(content.audioSampleRate);
    }
    const std::string &refusal = file.selection().refusal;
    json["refusal"] = refusal.empty() ? Json() : Json(refusal);
    add_tracks(json, file.outline(), file.selection());
    return json;
}

// 0 means not known.
Json number_or_null(uint64_t number)
{
    return number == 0 ? Json() : Json(number);
}

}  // namespace
