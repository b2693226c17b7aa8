#include "check.h"

#include <algorithm>
#include <new>

#include <unistd.h>

#include <fmt/format.h>

#include "check_report.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "several.h"
#include "stream/stage_hints.h"

namespace {

ExitStatus check_one(const CheckOptions &options, const InputOptions &input_options,
                     Printer &printer);
void check_packets(InputFile &file, CheckReport &report);
void check_media(Input &input, CheckReport &report);

}  // namespace

ExitStatus check(const CheckOptions &options, Printer &printer)
{
    return for_each_input(options.paths, options.f_json, printer, [&](const std::string &path) {
        InputOptions input = options.input;
        input.path = path;
        return check_one(options, input, printer);
    });
}

namespace {

ExitStatus check_one(const CheckOptions &options, const InputOptions &input_options,
                     Printer &printer)
{
    InputFile file(input_options);
    const bool f_packets = file.format().container == Container::TRANSPORT_STREAM;
    CheckReport report(f_packets);
    report.input = file.source().path();
    report.format = file.format().name;
    if (f_packets) {
        check_packets(file, report);
    } else {
        Input input(input_options, std::move(file), Order::BY_TIME);
        check_media(input, report);
    }
    const int indent = options.paths.size() > 1 ? -1 : 2;
    printer.print(options.f_json ? json_text(report.json(), indent) : report.text());
    printer.flush();
    return report.is_clean() ? EXIT_DONE : EXIT_DONE_WITH_FAULTS;
}

// Of a file of packets it is these that are judged.
void check_packets(InputFile &file, CheckReport &report)
{
    TsFileFrames frames(report);
    report.fault = read_all(file.source(), frames);
    report.finish();
    report.packet_size = frames.packet_size();
    report.packets = frames.packets();
}

// Of any other the stream that golt remux writes.
void check_media(Input &input, CheckReport &report)
{
    const StageSetup setup = stage_setup(input.outline(), input.selection(), false);
    report.f_own_order = input.outline().container == Container::MP4;
    StreamFrames frames(0, report);
    golt::StageListener<PELA::AVMuxer::Listener> stage(frames, setup.hints);
    if (!stage.is_valid()) throw std::bad_alloc();
    Pump pump(input, stage);
    Progress progress(isatty(STDERR_FILENO) != 0);
    while (pump.copy_frame()) {
        if (progress.is_due(frames.bytes()))
            progress.show(frames.bytes(), std::clamp(pump.part_done(), 0.0, 1.0),
                          counted(pump.frames(), "frame"));
    }
    stage.finish();
    frames.finish();
    report.finish();
    if (pump.frames() == 0) throw NotDone(input.source().path(), pump.why_nothing_came());
    report.fault = pump.fault_in_input();
    if (stop_signal() != 0) report.fault = fmt::format("stopped by {}", stop_signal_name());

    report.by_golt.push_back(
        fmt::format("all times are {:.3f} s later than in the file",
                    static_cast<double>(stage.stage().shift()) / TICKS_PER_SECOND));
    if (report.open_lengths() > 0)
        report.by_golt.push_back(fmt::format("{} of more than 65535 bytes with PES_packet_length 0",
                                             counted(report.open_lengths(), "picture")));
    for (const std::string &loss : input.selection().losses)
        report.by_golt.push_back("no " + loss);
    for (const std::string &note : setup.notes)
        report.by_golt.push_back(note);
    for (const std::string &note : input.selection().notes)
        report.by_golt.push_back("left out: " + note);
}

}  // namespace
