#include "info.h"

#include <fmt/format.h>

#include "stream/scan.h"
#include "stream/time_text.h"

namespace {

using Content = PELA::MediaBuffer::ContentInfo;

/// Adds up what passes; without a scan nothing does.
class Scanner final : public FrameUser {
public:
    Totals totals;

    void on_frame(const StreamFrame &frame) override { totals[frame.pes.pid].add(frame); }
};

/// The two streams, by the headers or, where these don't tell, by the scan.
struct Streams {
    Codec video, sound;
    uint32_t video_pid, sound_pid;
};

Streams choose_streams(const Content &content, const Totals &totals);
std::string info_text(const Input &input, const Content &content, const Streams &streams);
std::string video_text(const Content &content, const Streams &streams);
std::string sound_text(const Content &content, const Streams &streams);
Json info_json(const Input &input, const Content &content, const Streams &streams);
Json number_or_null(uint64_t number);

}  // namespace

ExitStatus info(const InfoOptions &options, Printer &printer)
{
    Input input(options.input);
    Scanner scanner;
    StreamFrames frames(0, scanner);
    Pump pump(input, frames);
    std::string fault;
    if (options.f_scan) {
        read_all(input, pump, frames);
        if (pump.frames() == 0) throw NotDone(input.source().path(), pump.why_nothing_came());
        fault = pump.fault_in_input();
    }

    const Streams streams = choose_streams(pump.content(), scanner.totals);
    if (options.f_json) {
        Json json = info_json(input, pump.content(), streams);
        if (options.f_scan) {
            json["scan"]["frames"] = pump.frames();
            json["scan"]["stream_bytes"] = frames.bytes();
            json["scan"]["streams"] = Json::array();
            for (const auto &[pid, totals] : scanner.totals)
                json["scan"]["streams"].push_back(totals_json(totals));
            json["scan"]["fault"] = fault.empty() ? Json() : Json(fault);
        }
        printer.print(json_text(json));
    } else {
        printer.print(info_text(input, pump.content(), streams));
        for (const auto &[pid, totals] : scanner.totals)
            printer.print(fmt::format("PID {:#05x}   {}, {}\n", pid, codec_name(totals.codec),
                                      totals_text(totals)));
        if (options.f_scan)
            printer.print(fmt::format("output      {}\n", counted(frames.bytes(), "byte")));
    }
    printer.flush();
    return end_command(input.source().path(), fault);
}

namespace {

Streams choose_streams(const Content &content, const Totals &totals)
{
    Streams streams = {Codec::UNKNOWN, Codec::UNKNOWN, content.videoPid, content.audioPid};
    switch (content.videoCodec) {
    case PELA::VIDEO_CODEC_H264: streams.video = Codec::H264; break;
    case PELA::VIDEO_CODEC_MPEG2: streams.video = Codec::MPEG2; break;
    case PELA::VIDEO_CODEC_UNKNOWN: break;
    }
    switch (content.audioCodec) {
    case PELA::AUDIO_CODEC_MP3: streams.sound = Codec::MPEG_AUDIO; break;
    case PELA::AUDIO_CODEC_AAC: streams.sound = Codec::AAC; break;
    case PELA::AUDIO_CODEC_DD: streams.sound = Codec::AC3; break;
    case PELA::AUDIO_CODEC_DDP: streams.sound = Codec::EAC3; break;
    case PELA::AUDIO_CODEC_UNKNOWN: break;
    }
    if (streams.video != Codec::UNKNOWN || streams.sound != Codec::UNKNOWN) return streams;
    for (const auto &[pid, total] : totals) {
        if (total.codec == Codec::UNKNOWN) continue;
        Codec &codec = is_video(total.codec) ? streams.video : streams.sound;
        if (codec != Codec::UNKNOWN) continue;
        codec = total.codec;
        (is_video(codec) ? streams.video_pid : streams.sound_pid) = pid;
    }
    return streams;
}

std::string info_text(const Input &input, const Content &content, const Streams &streams)
{
    const Source &source = input.source();
    std::string text = fmt::format("input       {}\nformat      {}\n", printable(source.path()),
                                   input.format().name);
    text += source.size() == 0 ? "size        unknown\n"
                               : fmt::format("size        {}\n", counted(source.size(), "byte"));
    text += fmt::format("duration    {}\n",
                        content.duration == 0 ? "unknown" : time_text(content.duration));
    text += fmt::format("video       {}\n", video_text(content, streams));
    text += fmt::format("sound       {}\n", sound_text(content, streams));
    return text;
}

std::string video_text(const Content &content, const Streams &streams)
{
    if (streams.video == Codec::UNKNOWN) return "none known";
    std::string text = codec_name(streams.video);
    if (content.width != 0) text += fmt::format(", {} x {} pixels", content.width, content.height);
    if (content.pixelAspectDenominator != 0)
        text += fmt::format(", pixel aspect {}:{}", content.pixelAspectNumerator,
                            content.pixelAspectDenominator);
    if (content.framesPerKiloSeconds != 0)
        text += fmt::format(", {:.3f} frames/s", content.framesPerKiloSeconds / 1000.0);
    return text + fmt::format(", PID {:#x}", streams.video_pid);
}

std::string sound_text(const Content &content, const Streams &streams)
{
    if (streams.sound == Codec::UNKNOWN) return "none known";
    std::string text = codec_name(streams.sound);
    if (content.numAudioChannels != 0) text += ", " + counted(content.numAudioChannels, "channel");
    if (content.audioSampleRate != 0) text += fmt::format(", {} Hz", content.audioSampleRate);
    return text + fmt::format(", PID {:#x}", streams.sound_pid);
}

Json info_json(const Input &input, const Content &content, const Streams &streams)
{
    Json json = json_document("golt.info/1");
    json["input"] = input.source().path();
    json["format"] = input.format().name;
    json["size"] = number_or_null(input.source().size());
    json["duration_ms"] = number_or_null(content.duration);
    json["video"] = nullptr;
    if (streams.video != Codec::UNKNOWN) {
        Json &video =
            json["video"] = {{"codec", codec_id(streams.video)}, {"pid", streams.video_pid}};
        video["width"] = number_or_null(content.width);
        video["height"] = number_or_null(content.height);
        video["pixel_aspect"] = nullptr;
        if (content.pixelAspectDenominator != 0)
            video["pixel_aspect"] = {content.pixelAspectNumerator, content.pixelAspectDenominator};
        video["frames_per_1000_s"] = number_or_null(content.framesPerKiloSeconds);
    }
    json["sound"] = nullptr;
    if (streams.sound != Codec::UNKNOWN) {
        Json &sound =
            json["sound"] = {{"codec", codec_id(streams.sound)}, {"pid", streams.sound_pid}};
        sound["channels"] = number_or_null(content.numAudioChannels);
        sound["sample_rate"] = number_or_null(content.audioSampleRate);
    }
    return json;
}

// 0 stands for what isn't known.
Json number_or_null(uint64_t number)
{
    return number == 0 ? Json() : Json(number);
}

}  // namespace
