#include "remux.h"

#include <algorithm>
#include <filesystem>

#include <unistd.h>

#include <fmt/format.h>

#include "frame_clock.h"
#include "library.h"
#include "output.h"
#include "progress.h"
#include "recognise.h"
#include "sink.h"
#include "source.h"
#include "time_text.h"

namespace {

// What getContentInfo reports as audioPid, always; the sink is made before the muxer can be asked.
constexpr uint32_t AUDIO_PID = 0x101;

Format choose_format(const RemuxOptions &options, Source &source);
Demuxer open_demuxer(Library &library, const Format &format, Source &source);

/// One remuxing from the opening of the files to the report. Objects stand in the order in which
/// they need each other.
class Job {
public:
    Job(const RemuxOptions &options, Descriptor standard_output);
    ExitStatus run();

private:
    void seek_to_start();
    bool copy_frame();
    void show(Progress &progress) const;
    double part_done() const;
    int64_t end_ms() const;
    std::string summary(double seconds) const;
    std::string why_nothing_came() const;
    std::string fault_in_input() const;
    std::string fault_of_ending() const;

    const RemuxOptions &m_options;
    Source m_source;
    const Format m_format;
    Library m_library;
    Demuxer m_demuxer;
    Output m_output;
    StreamWatch m_sound{AUDIO_PID};
    Sink m_sink;
    Muxer m_muxer;
    FrameClock m_clock;
    PELA::MediaBuffer::ContentInfo m_content = {};
    int64_t m_leave_out_to_ms = INT64_MIN;  // frames before this time
    uint64_t m_frames = 0;                  // written
    bool m_f_stopped = false;               // by an option, before the stream's own end
};

}  // namespace

ExitStatus remux(const RemuxOptions &options, Descriptor standard_output)
{
    return Job(options, std::move(standard_output)).run();
}

namespace {

Job::Job(const RemuxOptions &options, Descriptor standard_output)
    : m_options(options)
    , m_source(options.input)
    , m_format(choose_format(options, m_source))
    , m_demuxer(open_demuxer(m_library, m_format, m_source))
    , m_output(options.output, std::move(standard_output), m_source.status(), options.f_force)
    , m_sink(m_output.descriptor(), m_sound)
    , m_muxer(m_library.make_muxer(m_demuxer, m_sink))
    , m_clock(options.start_ms.value_or(0))
{
    if (m_muxer == nullptr || !m_muxer->getContentInfo(&m_content))
        throw NotDone(m_source.path(), "nothing in it can be played");
}

ExitStatus Job::run()
{
    Progress progress(!m_options.f_quiet && isatty(STDERR_FILENO) != 0);
    seek_to_start();
    while (copy_frame()) {
        if (m_sink.error() != 0) break;
        if (progress.is_due(m_sink.bytes())) show(progress);
    }
    m_sink.flush();
    progress.clear();

    if (m_sink.error() != 0) throw NotDone(m_output.name(), error_text(m_sink.error()));
    if (m_frames == 0) throw NotDone(m_source.path(), why_nothing_came());
    m_output.complete();
    if (!m_options.f_quiet) say(m_output.name() + ": " + summary(progress.seconds()));
    const std::string fault = fault_in_input();
    if (fault.empty()) return EXIT_DONE;
    say(fmt::format("golt: {}: {}", m_source.path(), fault));
    return EXIT_DONE_WITH_FAULTS;
}

void Job::seek_to_start()
{
    const uint32_t start_ms = m_options.start_ms.value_or(0);
    if (start_ms == 0 || m_demuxer->seekToTime(start_ms)) return;
    // An MP3 file, which has no index, can be sought in only where it has been read. Sound alone
    // can begin at any frame, so that the frames before are read and left out. A picture can't: it
    // needs a key frame, and which ones are doesn't show here.
    if (m_content.videoCodec != PELA::VIDEO_CODEC_UNKNOWN)
        throw NotDone(m_source.path(), fmt::format("can't be sought to {}", time_text(start_ms)));
    m_leave_out_to_ms = start_ms;
}

// Reads a frame and writes it, unless it is to be left out. False when there is no further frame,
// or none is wanted.
bool Job::copy_frame()
{
    m_f_stopped = m_options.frames && m_frames >= *m_options.frames;
    if (m_f_stopped) return false;

    const Frame frame = m_library.make_frame();
    if (!m_demuxer->readFrame(frame.get())) return false;
    if (m_format.has_times) {
        uint32_t pts = 0;
        m_muxer->getPts(frame.get(), pts);
        const int64_t time_ms = m_clock.follow(pts);
        m_f_stopped = m_options.to_ms && time_ms >= *m_options.to_ms;
        if (m_f_stopped) return false;
        if (time_ms < m_leave_out_to_ms) return true;
        m_clock.count();
    }
    if (!m_muxer->writeFrame(frame.get()))
        throw NotDone(m_source.path(), fmt::format("frame {} can't be written", m_frames + 1));
    ++m_frames;
    return true;
}

void Job::show(Progress &progress) const
{
    progress.show(m_sink.bytes(), std::clamp(part_done(), 0.0, 1.0),
                  m_format.has_times ? time_text(m_clock.reached_ms())
                                     : fmt::format("{} frames", m_frames));
}

// By what ends the work: the frames wanted, the time, or else the end of the file.
double Job::part_done() const
{
    if (m_options.frames)
        return static_cast<double>(m_frames) / static_cast<double>(*m_options.frames);
    const int64_t start_ms = m_options.start_ms.value_or(0);
    if (end_ms() > start_ms)
        return static_cast<double>(m_clock.reached_ms() - start_ms) /
               static_cast<double>(end_ms() - start_ms);
    return static_cast<double>(m_source.position()) / static_cast<double>(m_source.size());
}

// Where the work ends by time, in milliseconds; 0 where that isn't known.
int64_t Job::end_ms() const
{
    const int64_t duration_ms = m_content.duration;
    if (!m_options.to_ms) return duration_ms;
    const int64_t to_ms = *m_options.to_ms;
    return duration_ms != 0 ? std::min(to_ms, duration_ms) : to_ms;
}

std::string Job::summary(double seconds) const
{
    std::string text = fmt::format("{} frames, {} bytes", m_frames, m_sink.bytes());
    if (m_format.has_times) {
        const int64_t span_ms = m_clock.reached_ms() - m_clock.first_ms();
        text += ", " + time_text(span_ms);
        if (seconds > 0.001)
            text += fmt::format(", {:.1f} times as fast as it plays",
                                static_cast<double>(span_ms) / 1000 / seconds);
    }
    return text + rate_text(m_sink.bytes(), seconds, ", ");
}

std::string Job::why_nothing_came() const
{
    if (!m_source.fault().empty()) return m_source.fault();
    if (m_f_stopped) return fmt::format("no frame lies before {}", time_text(*m_options.to_ms));
    if (m_options.start_ms)
        return fmt::format("no frame follows {}", time_text(*m_options.start_ms));
    return "no video or sound in it can be read";
}

// What the input seems to have lacked; empty when it was sound. The library ends a stream without
// telling why, so that this is judged by what has come out of it.
std::string Job::fault_in_input() const
{
    if (!m_source.fault().empty()) return m_source.fault();
    std::string ending = m_f_stopped ? "" : fault_of_ending();
    if (!ending.empty() || !m_format.has_times || !m_sound.stands_still()) return ending;
    // Matroska files by muxers that write no DefaultDuration.
    return fmt::format("doesn't tell how long a sound frame lasts: all {} of them have the time {}",
                       m_sound.frames(), time_text(m_sound.first_ms()));
}

std::string Job::fault_of_ending() const
{
    // Records of one size: what isn't in a frame was no packet, or only part of one.
    if (m_format.record_size != 0) {
        const uint64_t used = m_frames * m_format.record_size;
        if (used >= m_source.size()) return "";
        return fmt::format("{} of its {} bytes are in none of the packets read",
                           m_source.size() - used, m_source.size());
    }

    // Where the duration isn't known, only a large part of the file that nobody asked for says
    // something. A little of it is tags behind the last frame.
    constexpr uint64_t UNREAD_TAIL = 4;  // a fourth of the file
    if (m_content.duration == 0) {
        if (m_source.unread() <= m_source.size() / UNREAD_TAIL) return "";
        return fmt::format("ended early: the last {} of its {} bytes were not read",
                           m_source.unread(), m_source.size());
    }

    // The last frame begins before the end, by its own length, and the tracks of a file differ a
    // little; much where the duration is that of a track that isn't chosen, like subtitles or a
    // second sound. Sound without a frame length, whose frames all have one time, tells nothing.
    const int64_t slack_ms = m_format.has_duration_of_all
                                 ? std::clamp<int64_t>(end_ms() / 5, 500, 20000)
                                 : std::clamp<int64_t>(end_ms() / 20, 500, 5000);
    const int64_t missing_ms = end_ms() - m_clock.reached_ms();
    if (m_clock.longest_step_ms() == 0) return "";
    if (missing_ms <= slack_ms + 2 * m_clock.longest_step_ms()) return "";
    return fmt::format("ended early: at {} of {}", time_text(m_clock.reached_ms()),
                       time_text(end_ms()));
}

// By the user, else by the first bytes, else by the file's name.
Format choose_format(const RemuxOptions &options, Source &source)
{
    const Format *format = nullptr;
    if (!options.format.empty()) {
        format = format_of_name(options.format);
        // The library decides about names that aren't known here.
        if (format == nullptr) return {options.format.c_str(), 0, true, true};
    } else {
        uint8_t head[RECOGNISE_SIZE] = {};
        const int size = source.read(head, RECOGNISE_SIZE);
        source.seek(0, SEEK_SET);
        format = format_of_bytes(head, static_cast<size_t>(size));
        const std::string dotted = std::filesystem::path(source.path()).extension().string();
        if (format == nullptr && dotted.size() > 1) format = format_of_name(dotted.substr(1));
        if (format == nullptr && !source.fault().empty())
            throw NotDone(source.path(), source.fault());
        if (format == nullptr)
            throw NotDone(source.path(), "format not recognised; --format names it");
    }
    if (!format->has_times && (options.start_ms || options.to_ms))
        throw BadUsage(fmt::format("{}: the frames of {} have no times; --start and --to don't "
                                   "work with it",
                                   source.path(), format->name));
    return *format;
}

Demuxer open_demuxer(Library &library, const Format &format, Source &source)
{
    Demuxer demuxer =
        library.make_demuxer(format.name, source, static_cast<int64_t>(source.size()));
    if (demuxer == nullptr)
        throw NotDone(source.path(),
                      fmt::format("format {} not supported by this library", format.name));
    if (demuxer->isValid()) return demuxer;
    throw NotDone(source.path(), source.fault().empty()
                                     ? fmt::format("not a sound {} file", format.name)
                                     : source.fault());
}

}  // namespace
