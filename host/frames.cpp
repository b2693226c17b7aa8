#include "frames.h"

#include <fmt/format.h>

#include "io/interrupt.h"
#include "stream/scan.h"
#include "stream/time_text.h"

namespace {

ExitStatus list_packets(InputFile &file, const FramesOptions &options, Printer &printer);
std::string text_line(const StreamFrame &frame, bool f_packets);
std::string csv_line(const StreamFrame &frame, bool f_packets);
std::string json_line(const StreamFrame &frame, bool f_packets);
std::string header_of(const FramesOptions &options, const InputFile &file);
std::string time_of(const std::optional<int64_t> &time);
std::string time_text_of(const std::optional<int64_t> &time);
const char *kind_of(const StreamFrame &frame);

class Lister final : public FrameUser {
public:
    /// f_packets: of a file of packets, in which frames have more to tell.
    Lister(const FramesOptions &options, bool f_packets, Printer &printer)
        : m_options(options)
        , m_f_packets(f_packets)
        , m_printer(printer)
    {
    }

    void on_frame(const StreamFrame &frame) override
    {
        if (is_full()) return;
        ++m_listed;
        m_printer.print(m_options.f_json  ? json_line(frame, m_f_packets)
                        : m_options.f_csv ? csv_line(frame, m_f_packets)
                                          : text_line(frame, m_f_packets));
    }
    void on_program(const TsProgram &program) override { m_program = program; }
    const std::optional<TsProgram> &program() const { return m_program; }
    bool is_full() const { return m_options.count && m_listed >= *m_options.count; }
    bool is_enough() const { return is_full() || m_printer.is_closed(); }
    uint64_t listed() const { return m_listed; }

private:
    const FramesOptions &m_options;
    const bool m_f_packets;
    Printer &m_printer;
    uint64_t m_listed = 0;
    std::optional<TsProgram> m_program;
};

}  // namespace

ExitStatus frames(const FramesOptions &options, Printer &printer)
{
    InputFile file(options.input);
    if (file.format().is_plain_stream()) return list_packets(file, options, printer);
    Input input(options.input, std::move(file));
    Lister lister(options, false, printer);
    StreamFrames sink(options.input.start_ms.value_or(0), lister);
    Pump pump(input, sink);
    pump.seek_to_start();
    printer.print(header_of(options, input.file()));
    while (!lister.is_enough() && pump.copy_frame()) {
        if (input.format().f_times) sink.end_frames();
    }
    const bool f_stopped = lister.is_enough() || stop_signal() != 0;
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

ExitStatus list_packets(InputFile &file, const FramesOptions &options, Printer &printer)
{
    Lister lister(options, true, printer);
    TsFileFrames frames(lister);
    printer.print(header_of(options, file));
    const std::string fault = read_all(file.source(), frames, [&] { return lister.is_enough(); });
    if (lister.program() && lister.program()->others > 0)
        say(fmt::format("{}: program {} alone; {} left out", file.source().path(),
                        lister.program()->number,
                        counted(lister.program()->others, "other program")));
    if (!lister.is_enough() && lister.listed() == 0 && fault.empty())
        throw NotDone(file.source().path(), "no PES packets in it");
    if (lister.is_enough() || stop_signal() != 0) {
        printer.flush();
        return EXIT_DONE;
    }
    if (options.f_json && !fault.empty()) printer.print(json_error(EXIT_DONE_WITH_FAULTS, fault));
    printer.flush();
    return end_command(file.source().path(), fault);
}

std::string header_of(const FramesOptions &options, const InputFile &file)
{
    const bool f_packets = file.format().is_plain_stream();
    if (options.f_csv)
        return fmt::format("number,stream,pid,codec,time_ms,size,packet,units,sample_rate,channels,"
                           "bits_per_second,samples{}\n",
                           f_packets ? ",dts_ms,key,offset" : "");
    if (!options.f_json && f_packets)
        return fmt::format("{:>8} {:6} {:>12} {:>12} {:3} {:>8} {:>10}  {}\n", "number", "stream",
                           "time", "decoding", "key", "bytes", "offset", "content");
    if (!options.f_json)
        return fmt::format("{:>8} {:6} {:>12} {:>8}  {}\n", "number", "stream", "time", "bytes",
                           "content");
    Json json = json_document("golt.frames/1");
    json["input"] = file.source().path();
    json["format"] = file.format().name;
    return json_text(json, -1);
}

std::string text_line(const StreamFrame &frame, bool f_packets)
{
    std::string content = unit_names(frame.codec, frame.content);
    if (const auto &audio = frame.content.audio.first) {
        content = fmt::format("{} {} Hz, {} ch, {} samples", codec_name(frame.codec),
                              audio->sample_rate, audio->channels, audio->samples);
        if (audio->bit_rate != 0) content += fmt::format(", {} kbit/s", audio->bit_rate / 1000);
    }
    if (f_packets)
        return fmt::format("{:>8} {:6} {:>12} {:>12} {:3} {:>8} {:>10}  {}\n", frame.number,
                           kind_of(frame), time_text_of(frame.time),
                           time_text_of(frame.decoding_time()), frame.is_key() ? "key" : "",
                           frame.pes.payload_size, frame.pes.offset, content);
    return fmt::format("{:>8} {:6} {:>12} {:>8}  {}\n", frame.number, kind_of(frame),
                       time_text_of(frame.time), frame.pes.payload_size, content);
}

std::string csv_line(const StreamFrame &frame, bool f_packets)
{
    std::string units;
    for (size_t i = 0; i < frame.content.unit_count; ++i)
        units += fmt::format("{}{}", i == 0 ? "" : " ", frame.content.units[i]);
    std::string line = fmt::format("{},{},{},{},{},{},{},{}", frame.number, kind_of(frame),
                                   frame.pes.pid, codec_id(frame.codec), time_of(frame.time),
                                   frame.pes.payload_size, frame.pes.first_packet, units);
    const auto &audio = frame.content.audio.first;
    line += audio ? fmt::format(",{},{},{},{}", audio->sample_rate, audio->channels,
                                audio->bit_rate, audio->samples)
                  : ",,,,";
    if (f_packets)
        line += fmt::format(",{},{},{}", time_of(frame.decoding_time()), int{frame.is_key()},
                            frame.pes.offset);
    return line + "\n";
}

std::string json_line(const StreamFrame &frame, bool f_packets)
{
    Json json = {{"number", frame.number},
                 {"stream", kind_of(frame)},
                 {"pid", frame.pes.pid},
                 {"codec", codec_id(frame.codec)},
                 {"time_ms", frame.time ? json_ms(*frame.time) : Json()},
                 {"size", frame.pes.payload_size},
                 {"packet", frame.pes.first_packet}};
    if (f_packets) {
        json["dts_ms"] = frame.time ? json_ms(*frame.decoding_time()) : Json();
        json["key"] = frame.is_key();
        json["offset"] = frame.pes.offset;
    }
    if (is_video(frame.codec)) {
        const char *const name = frame.codec == Codec::H264 ? "nal_types" : "start_codes";
        Json &units = json[name] = Json::array();
        for (size_t i = 0; i < frame.content.unit_count; ++i)
            units.push_back(frame.content.units[i]);
        if (frame.content.more_units != 0) json["more_units"] = frame.content.more_units;
    }
    if (const auto &audio = frame.content.audio.first) {
        json["sample_rate"] = audio->sample_rate;
        json["channels"] = audio->channels;
        if (audio->bit_rate != 0) json["bits_per_second"] = audio->bit_rate;
        json["samples"] = audio->samples;
    }
    return json_text(json, -1);
}

// In milliseconds, without a fraction where there is none; empty without a time.
std::string time_of(const std::optional<int64_t> &time)
{
    if (!time) return "";
    if (*time % TICKS_PER_MS == 0) return std::to_string(*time / TICKS_PER_MS);
    return fmt::format("{:.3f}", static_cast<double>(*time) / TICKS_PER_MS);
}

std::string time_text_of(const std::optional<int64_t> &time)
{
    return time ? time_text(*time / TICKS_PER_MS) : "-";
}

const char *kind_of(const StreamFrame &frame)
{
    return is_video(frame.codec) ? "video" : frame.codec == Codec::UNKNOWN ? "other" : "sound";
}

}  // namespace
