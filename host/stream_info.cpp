#include "stream_info.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/text.h"
#include "stream/scan.h"
#include "stream/time_text.h"
#include "ts_judge.h"

namespace {

constexpr double PCR_PER_MS = static_cast<double>(TICKS_PER_MS * PCR_PER_TICK);

struct Keys {
    uint64_t count = 0;
    int64_t last = 0, widest = 0;  // 90 kHz
};

/// Adds up what passes.
class Scan final : public TsJudge {
public:
    Totals totals;
    std::map<uint16_t, uint8_t> types;
    std::map<uint16_t, Keys> keys;
    std::optional<TsProgram> program;

    void on_frame(const StreamFrame &frame) override;
    void on_program(const TsProgram &first) override { program = first; }
    void on_stream(uint16_t pid, uint8_t stream_type) override;

    /// The first stream of video or of audio.
    const StreamTotals *first(bool f_video) const;
    int64_t duration() const;

private:
    void found(const TsProblem & /*problem*/) override {}

    int64_t m_end = INT64_MIN;  // of the audio frames, by their headers
};

struct Subject {
    const InputFile &file;
    const Scan &scan;
    size_t packet_size;
    uint64_t packets;
};

std::string info_text(const Subject &subject);
std::string summary_text(const Subject &subject);
std::string stream_text(const Scan &scan, uint16_t pid, uint8_t type);
Json info_json(const Subject &subject, const std::string &fault);
Json program_json(const Subject &subject);
Json stream_json(const Scan &scan, uint16_t pid, uint8_t type);
const char *kind_of(Codec codec);
uint64_t frame_rate(const StreamTotals &totals);

}  // namespace

ExitStatus stream_info(InputFile &file, bool f_json, bool f_several, Printer &printer)
{
    Scan scan;
    TsFileFrames frames(scan);
    const std::string fault = read_all(file.source(), frames);
    scan.finish();
    const Subject subject = {file, scan, frames.packet_size(), frames.packets()};
    printer.print(f_json      ? json_text(info_json(subject, fault), f_several ? -1 : 2)
                  : f_several ? summary_text(subject)
                              : info_text(subject));
    printer.flush();
    return end_command(file.source().path(), fault);
}

namespace {

void Scan::on_frame(const StreamFrame &frame)
{
    totals[frame.pes.pid].add(frame);
    TsJudge::on_frame(frame);
    if (frame.time && frame.content.audio.first)
        m_end = std::max(m_end, *frame.time +
                                    static_cast<int64_t>(frame.content.audio.samples *
                                                         uint64_t{TICKS_PER_SECOND} /
                                                         frame.content.audio.first->sample_rate));
    if (!frame.is_key() || !frame.time) return;
    Keys &key = keys[frame.pes.pid];
    if (key.count++ > 0) key.widest = std::max(key.widest, *frame.time - key.last);
    key.last = *frame.time;
}

void Scan::on_stream(uint16_t pid, uint8_t stream_type)
{
    types[pid] = stream_type;
    TsJudge::on_stream(pid, stream_type);
}

const StreamTotals *Scan::first(bool f_video) const
{
    for (const auto &[pid, one] : totals)
        if (one.codec != Codec::UNKNOWN && is_video(one.codec) == f_video) return &one;
    return nullptr;
}

// From the first frame of all to the end of the last one.
int64_t Scan::duration() const
{
    int64_t begin = INT64_MAX, end = m_end;
    for (const auto &[pid, one] : totals) {
        if (one.timed_frames == 0) continue;
        begin = std::min(begin, one.first);
        if (!one.audio) end = std::max(end, one.first + one.duration());
    }
    return std::max<int64_t>(end > begin ? end - begin : 0, 0);
}

std::string info_text(const Subject &subject)
{
    const auto &[file, scan, packet_size, packets] = subject;
    const TsClock &clock = scan.clock();
    std::string text = fmt::format("input       {}\nformat      {}\n",
                                   printable(file.source().path()), file.format().title);
    if (file.source().size() != 0)
        text += fmt::format("size        {}\n", counted(file.source().size(), "byte"));
    text += fmt::format("packets     {} of {} bytes\n", packets, packet_size);
    text += scan.program ? fmt::format("program     {}, PMT on PID {:#x}", scan.program->number,
                                       scan.program->pmt_pid)
                         : "program     none";
    if (scan.program && scan.program->others > 0)
        text += fmt::format("; {} left out", counted(scan.program->others, "other program"));
    text +=
        fmt::format("\nduration    {}\n",
                    scan.duration() == 0 ? "unknown" : time_text(scan.duration() / TICKS_PER_MS));
    if (clock.pcrs().count > 0)
        text += fmt::format(
            "rate        {:.1f} kbit/s, {}\nclock       PID {:#x}, PCR every {:.1f} to {:.1f} ms, {:.1f} ms on "
            "average\n",
            static_cast<double>(clock.bit_rate()) / 1000, clock.jitter() ? "constant" : "variable",
            clock.pid(), static_cast<double>(clock.pcrs().least) / PCR_PER_MS,
            static_cast<double>(clock.pcrs().most) / PCR_PER_MS,
            static_cast<double>(clock.pcrs().mean()) / PCR_PER_MS);
    for (const auto &[pid, type] : scan.types)
        text += stream_text(scan, pid, type);
    return text;
}

std::string summary_text(const Subject &subject)
{
    const Scan &scan = subject.scan;
    std::string text =
        fmt::format("{}: {}, {}", printable(subject.file.source().path()),
                    subject.file.format().title, time_text(scan.duration() / TICKS_PER_MS));
    for (const bool f_video : {true, false}) {
        const StreamTotals *const totals = scan.first(f_video);
        text +=
            fmt::format("; {}: {}", f_video ? "video" : "audio",
                        totals == nullptr
                            ? "none"
                            : fmt::format("{}, PID {:#x}", codec_name(totals->codec), totals->pid));
    }
    for (const auto &[pid, type] : scan.types)
        if (codec_of_stream_type(type) == Codec::UNKNOWN)
            text += fmt::format("; other: {}, PID {:#x}", stream_type_name(type), pid);
    return text + "\n";
}

std::string stream_text(const Scan &scan, uint16_t pid, uint8_t type)
{
    std::string text = fmt::format("PID {:#06x}  {}, {}", pid, kind_of(codec_of_stream_type(type)),
                                   stream_type_name(type));
    const auto found = scan.totals.find(pid);
    if (found == scan.totals.end()) return text + ", nothing in it\n";
    const StreamTotals &totals = found->second;
    if (totals.audio && totals.audio->channels != 0)
        text += ", " + counted(totals.audio->channels, "channel");
    if (totals.audio) text += fmt::format(", {} Hz", totals.audio->sample_rate);
    const uint64_t rate = is_video(totals.codec) ? frame_rate(totals) : 0;
    if (rate != 0) text += fmt::format(", {:.3f} frames/s", static_cast<double>(rate) / 1000);
    text += ", " + totals_text(totals);
    if (is_video(totals.codec)) {
        const auto keys = scan.keys.find(pid);
        text += ", " + counted(keys == scan.keys.end() ? 0 : keys->second.count, "key picture");
        if (keys != scan.keys.end() && keys->second.widest > 0)
            text += fmt::format(", at most {:.3f} s apart",
                                static_cast<double>(keys->second.widest) / TICKS_PER_SECOND);
    }
    return text + "\n";
}

Json info_json(const Subject &subject, const std::string &fault)
{
    const auto &[file, scan, packet_size, packets] = subject;
    Json json = json_document("golt.info/1");
    json["input"] = file.source().path();
    json["format"] = file.format().name;
    json["size"] = file.source().size() == 0 ? Json() : Json(file.source().size());
    json["duration_ms"] = scan.duration() == 0 ? Json() : Json(scan.duration() / TICKS_PER_MS);
    json["video"] = json["sound"] = nullptr;
    if (const StreamTotals *const video = scan.first(true))
        json["video"] = {
            {"codec", codec_id(video->codec)},
            {"pid", video->pid},
            {"frames_per_1000_s", frame_rate(*video) == 0 ? Json() : Json(frame_rate(*video))}};
    if (const StreamTotals *const audio = scan.first(false)) {
        Json &sound = json["sound"] = {{"codec", codec_id(audio->codec)}, {"pid", audio->pid}};
        if (audio->audio) {
            sound["channels"] = audio->audio->channels == 0 ? Json() : Json(audio->audio->channels);
            sound["sample_rate"] = audio->audio->sample_rate;
        }
    }
    json["refusal"] = file.selection().refusal.empty() ? Json() : Json(file.selection().refusal);
    json["program"] = program_json(subject);
    json["fault"] = fault.empty() ? Json() : Json(fault);
    return json;
}

Json program_json(const Subject &subject)
{
    const auto &[file, scan, packet_size, packets] = subject;
    const TsClock &clock = scan.clock();
    Json json = {{"packet_size", packet_size}, {"packets", packets}};
    json["number"] = scan.program ? Json(scan.program->number) : Json();
    json["pmt_pid"] = scan.program ? Json(scan.program->pmt_pid) : Json();
    json["others"] = scan.program ? Json(scan.program->others) : Json();
    json["clock"] = nullptr;
    if (clock.pcrs().count > 0)
        json["clock"] = {{"pid", clock.pid()},
                         {"interval_ms", distances_json(clock.pcrs())},
                         {"bits_per_second", clock.bit_rate()},
                         {"constant_rate", clock.jitter().has_value()}};
    json["streams"] = Json::array();
    for (const auto &[pid, type] : scan.types)
        json["streams"].push_back(stream_json(scan, pid, type));
    return json;
}

Json stream_json(const Scan &scan, uint16_t pid, uint8_t type)
{
    StreamTotals totals;
    totals.pid = pid;
    totals.codec = codec_of_stream_type(type);
    const auto found = scan.totals.find(pid);
    if (found != scan.totals.end()) totals = found->second;
    Json json = totals_json(totals);
    json["kind"] = kind_of(totals.codec);
    json["stream_type"] = type;
    json["name"] = stream_type_name(type);
    if (!is_video(totals.codec)) return json;
    const auto keys = scan.keys.find(pid);
    json["key_pictures"] = keys == scan.keys.end() ? 0 : keys->second.count;
    json["key_interval_ms_max"] =
        keys == scan.keys.end() || keys->second.count < 2 ? Json() : json_ms(keys->second.widest);
    return json;
}

const char *kind_of(Codec codec)
{
    return is_video(codec) ? "video" : codec == Codec::UNKNOWN ? "other" : "sound";
}

// In 1000 seconds.
uint64_t frame_rate(const StreamTotals &totals)
{
    if (totals.duration() <= 0) return 0;
    const auto duration = static_cast<uint64_t>(totals.duration());
    return (totals.timed_frames * 1000 * uint64_t{TICKS_PER_SECOND} + duration / 2) / duration;
}

}  // namespace
