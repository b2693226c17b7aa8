#include "remux.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <unistd.h>

#include <fmt/format.h>

#include "io/interrupt.h"
#include "io/output.h"
#include "io/progress.h"
#include "io/sink.h"
#include "stream/heap.h"
#include "stream/input.h"
#include "stream/stage_hints.h"
#include "stream/time_text.h"
#include "ts_time.h"

namespace {

// Receivers keep a second of a stream, ISO/IEC 13818-1 says; those that are known keep more.
constexpr int64_t MOST_APART = 2 * TICKS_PER_SECOND;

/// One remuxing from the opening of the files to the report. Objects are in the order in which
/// they need each other.
class Job {
public:
    Job(const RemuxOptions &options, Descriptor standard_output);
    ExitStatus run();

private:
    void show(Progress &progress) const;
    std::string summary(double seconds) const;
    std::string fault_in_times() const;
    ExitStatus report();

    const RemuxOptions &m_options;
    Input m_input;
    Output m_output;
    Sink m_sink;
    const StageSetup m_setup;
    golt::StageListener<PELA::AVMuxer::Listener> m_stage;
    const bool m_f_staged;  // ready-made packets pass as they are without it, too
    Pump m_pump;
};

}  // namespace

ExitStatus remux(const RemuxOptions &options, Descriptor standard_output)
{
    return Job(options, std::move(standard_output)).run();
}

namespace {

Job::Job(const RemuxOptions &options, Descriptor standard_output)
    : m_options(options)
    , m_input(options.input, options.f_as_is ? Order::OF_LIBRARY : Order::BY_TIME)
    , m_output(options.output, std::move(standard_output), m_input.source().status(),
               options.f_force)
    , m_sink(m_output.descriptor())
    , m_setup(stage_setup(m_input.outline(), m_input.selection(), !m_input.format().f_times))
    , m_stage(m_sink, m_setup.hints)
    , m_f_staged(!options.f_as_is && m_input.format().f_times)
    , m_pump(m_input, m_f_staged ? static_cast<PELA::AVMuxer::Listener &>(m_stage) : m_sink)
{
    if (!m_stage.is_valid()) throw std::bad_alloc();
}

ExitStatus Job::run()
{
    const std::string &path = m_input.source().path();
    Progress progress(!m_options.f_quiet && isatty(STDERR_FILENO) != 0);
    m_pump.seek_to_start();
    release_start_up();
    while (m_pump.copy_frame()) {
        if (m_sink.error() != 0) break;
        if (progress.is_due(m_sink.bytes())) show(progress);
    }
    m_stage.finish();
    m_sink.flush();
    progress.clear();

    if (m_sink.error() == EINTR)
        throw NotWritten(m_output.name(), fmt::format("stopped by {}", stop_signal_name()));
    if (m_sink.error() != 0) throw NotWritten(m_output.name(), error_text(m_sink.error()));
    if (m_pump.frames() == 0) throw NotDone(path, m_pump.why_nothing_came());
    m_output.complete();
    if (!m_options.f_quiet) say(m_output.name() + ": " + summary(progress.seconds()));
    if (stop_signal() != 0) {
        say(fmt::format("golt: {}: stopped by {}; what was written before is complete",
                        m_output.name(), stop_signal_name()));
        return EXIT_NOT_DONE;
    }
    return report();
}

void Job::show(Progress &progress) const
{
    progress.show(m_sink.bytes(), std::clamp(m_pump.part_done(), 0.0, 1.0),
                  m_input.format().f_times ? time_text(m_pump.clock().reached_ms())
                                           : counted(m_pump.frames(), "packet"));
}

std::string Job::summary(double seconds) const
{
    const bool f_times = m_input.format().f_times;
    std::string text = counted(m_pump.frames(), f_times ? "frame" : "packet") + ", " +
                       counted(m_sink.bytes(), "byte");
    if (f_times) {
        const Tally &tally = m_pump.tally();
        const int64_t span_ms = (tally.end() - tally.first_passed()) / TICKS_PER_MS;
        text += ", " + time_text(span_ms);
        if (m_options.input.start_ms.value_or(0) != 0)
            text += " from " + time_text(tally.first_passed() / TICKS_PER_MS);
        text += speed_text(span_ms, seconds, ", ");
    }
    return text + rate_text(m_sink.bytes(), seconds, ", ");
}

// What of the file isn't in the stream, and what was wrong with it.
ExitStatus Job::report()
{
    const std::string &path = m_input.source().path();
    const Selection &selection = m_input.selection();
    for (const std::string &loss : selection.losses)
        say(fmt::format("golt: {}: no {}", path, loss));
    if (!m_options.f_quiet) {
        for (const std::string &note : selection.notes)
            say(fmt::format("{}: left out: {}", path, note));
        for (const std::string &note : m_setup.notes)
            if (m_f_staged) say(fmt::format("{}: {}", path, note));
        if (m_f_staged && are_edits_out_of_reach(m_input.source(), m_input.outline()))
            say(fmt::format(
                "{}: edit lists not applied: they are too far from the file's start for "
                "a server without ranges",
                path));
    }
    std::string fault = m_pump.fault_in_input();
    if (fault.empty()) fault = fault_in_times();
    const ExitStatus status = end_command(path, fault);
    return selection.losses.empty() ? status : EXIT_DONE_WITH_FAULTS;
}

// What the stage couldn't correct.
std::string Job::fault_in_times() const
{
    const golt::StageCounts counts = m_stage.counts();
    if (counts.misordered > 0)
        return "pictures in an order that their parameter sets don't allow: " +
               std::to_string(counts.misordered);
    if (counts.worst_late >= TICKS_PER_MS)
        return fmt::format("badly interleaved: {} {} up to {} ms too late",
                           counted(counts.late, "frame"), counts.late == 1 ? "comes" : "come",
                           counts.worst_late / TICKS_PER_MS);
    if (counts.worst_apart > MOST_APART)
        return fmt::format("audio and video are up to {:.1f} s apart",
                           static_cast<double>(counts.worst_apart) / TICKS_PER_SECOND);
    if (counts.untimed_audio > 0)
        return "states neither times nor durations of audio frames: " +
               std::to_string(counts.untimed_audio);
    return "";
}

}  // namespace
