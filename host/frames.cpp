#include "frames.h"

#include <fmt/format.h>

#include "io/interrupt.h"
#include "stream/json_text.h"
#include "stream/stream_frames.h"
#include "stream/time_text.h"

namespace {

std::string text_line(const StreamFrame &frame);
std::string csv_line(const StreamFrame &frame);
std::string json_line(const StreamFrame &frame);
std::string header_of(const FramesOptions &options, const Input &input);
std::string time_of(const StreamFrame &frame);
const char *kind_of(const StreamFrame &frame);

class Lister final : public FrameUser {
public:
    Lister(const FramesOptions &options, Printer &printer)
        : m_options(options)
        , m_printer(printer)
    {
    }

    void on_frame(const StreamFrame &frame) override
    {
        if (is_full()) return;
        ++m_listed;
        m_printer.print(m_options.f_json  ? json_line(frame)
                        : m_options.f_csv ? csv_line(frame)
                                          : text_line(frame));
    }
    bool is_full() const { return m_options.count && m_listed >= *m_options.count; }
    uint64_t listed() const { return m_listed; }

private:
    const FramesOptions &m_options;
    Printer &m_printer;
    uint64_t m_listed = 0;
};

}  // namespace

ExitStatus frames(const FramesOptions &options, Printer &printer)
{
    Input input(options.input);
    Lister lister(options, printer);
    StreamFrames sink(options.input.start_ms.value_or(0), lister);
    Pump pump(input, sink);
    pump.seek_to_start();
    printer.print(header_of(options, input));
    while (!lister.is_full() && !printer.is_closed() && pump.copy_frame()) {
        if (input.format().f_times) sink.end_frames();
    }
    const bool f_stopped = lister.is_full() || printer.is_closed() || stop_signal() != 0;
    sink.finish();
    if (f_stopped) {
        printer.flush();
        return EXIT_DONE;
    }
    if (lister.listed() == 0) throw NotDone(input.source().path(), pump.why_nothing_came());
    const std::string fault = pump.fault_in_input();
    if (options.f_json && !fault.empty()) printer.print(json_error(EXIT_DONE_WITH_FAULTS, fault));
    printer.flush();
    return end_command(input.source().path(), fault);
}

namespace {

std::string header_of(const FramesOptions &options, const Input &input)
{
    if (options.f_csv)
        return "number,stream,pid,codec,time_ms,size,packet,units,sample_rate,channels,"
               "bits_per_second,samples\n";
    if (!options.f_json)
        return fmt::format("{:>8} {:6} {:>12} {:>8}  {}\n", "number", "stream", "time", "bytes",
                           "content");
    Json json = json_document("golt.frames/1");
    json["input"] = input.source().path();
    json["format"] = input.format().name;
    return json_text(json, -1);
}

std::string text_line(const StreamFrame &frame)
{
    std::string content = unit_names(frame.codec, frame.content);
    if (const auto &audio = frame.content.audio) {
        content = fmt::format("{} {} Hz, {} ch, {} samples", codec_name(frame.codec),
                              audio->sample_rate, audio->channels, audio->samples);
        if (audio->bit_rate != 0) content += fmt::format(", {} kbit/s", audio->bit_rate / 1000);
    }
    return fmt::format("{:>8} {:6} {:>12} {:>8}  {}\n", frame.number, kind_of(frame),
                       frame.time ? time_text(*frame.time / TICKS_PER_MS) : "-",
                       frame.pes.payload_size, content);
}

std::string csv_line(const StreamFrame &frame)
{
    std::string units;
    for (size_t i = 0; i < frame.content.unit_count; ++i)
        units += fmt::format("{}{}", i == 0 ? "" : " ", frame.content.units[i]);
    std::string line = fmt::format("{},{},{},{},{},{},{},{}", frame.number, kind_of(frame),
                                   frame.pes.pid, codec_id(frame.codec), time_of(frame),
                                   frame.pes.payload_size, frame.pes.first_packet, units);
    const auto &audio = frame.content.audio;
    if (!audio) return line + ",,,,\n";
    return line + fmt::format(",{},{},{},{}\n", audio->sample_rate, audio->channels,
                              audio->bit_rate, audio->samples);
}

std::string json_line(const StreamFrame &frame)
{
    Json json = {{"number", frame.number},
                 {"stream", kind_of(frame)},
                 {"pid", frame.pes.pid},
                 {"codec", codec_id(frame.codec)},
                 {"time_ms", frame.time ? json_ms(*frame.time) : Json()},
                 {"size", frame.pes.payload_size},
                 {"packet", frame.pes.first_packet}};
    if (is_video(frame.codec)) {
        const char *const name = frame.codec == Codec::H264 ? "nal_types" : "start_codes";
        Json &units = json[name] = Json::array();
        for (size_t i = 0; i < frame.content.unit_count; ++i)
            units.push_back(frame.content.units[i]);
        if (frame.content.more_units != 0) json["more_units"] = frame.content.more_units;
    }
    if (const auto &audio = frame.content.audio) {
        json["sample_rate"] = audio->sample_rate;
        json["channels"] = audio->channels;
        if (audio->bit_rate != 0) json["bits_per_second"] = audio->bit_rate;
        json["samples"] = audio->samples;
    }
    return json_text(json, -1);
}

// In milliseconds, without a fraction where there is none; empty without a time.
std::string time_of(const StreamFrame &frame)
{
    if (!frame.time) return "";
    if (*frame.time % TICKS_PER_MS == 0) return std::to_string(*frame.time / TICKS_PER_MS);
    return fmt::format("{:.3f}", static_cast<double>(*frame.time) / TICKS_PER_MS);
}

const char *kind_of(const StreamFrame &frame)
{
    return is_video(frame.codec) ? "video" : frame.codec == Codec::UNKNOWN ? "other" : "sound";
}

}  // namespace
