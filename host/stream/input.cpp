#include "input.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "heap.h"
#include "io/http_source.h"
#include "io/interrupt.h"
#include "io/message.h"
#include "time_text.h"

namespace {

// What is taken behind the library's pool: what it reads ahead, as far as there is so much, and then
// tables, the buffer of an output and the first frames.
constexpr uint64_t READ_AHEAD = 1024 * 1024;
constexpr size_t SMALLER_THINGS = 256 * 1024;

std::unique_ptr<Source> open_source(const InputOptions &options);
Format choose_format(const InputOptions &options, Source &source);
size_t read_head(Source &source, uint8_t *head, size_t size);
std::string extension_of(const std::string &path);
Demuxer open_demuxer(Library &library, const Format &format, Source &source);

}  // namespace

Input::Input(const InputOptions &options)
    : m_options(options)
    , m_source(open_source(options))
    , m_format(choose_format(options, *m_source))
    , m_demuxer(open_demuxer(m_library, m_format, *m_source))
{
}

Pump::Pump(Input &input, PELA::AVMuxer::Listener &sink)
    : m_input(input)
    , m_options(input.options())
    , m_muxer(input.library().make_muxer(input.demuxer(), sink))
    , m_clock(m_options.start_ms.value_or(0))
{
    if (m_muxer == nullptr || !m_muxer->getContentInfo(&m_content))
        throw NotDone(m_input.source().path(), "nothing in it can be played");
}

void Pump::seek_to_start()
{
    const uint32_t start_ms = m_options.start_ms.value_or(0);
    if (start_ms == 0 || m_input.demuxer()->seekToTime(start_ms)) return;
    // An MP3 file, which has no index, can be sought in only where it has been read. Sound alone
    // can begin at any frame, so that the frames before are read and left out. A picture can't: it
    // needs a key frame, and which ones are doesn't show here.
    if (m_content.videoCodec != PELA::VIDEO_CODEC_UNKNOWN)
        throw NotDone(m_input.source().path(),
                      fmt::format("can't be sought to {}", time_text(start_ms)));
    m_leave_out_to_ms = start_ms;
}

bool Pump::copy_frame()
{
    m_f_stopped = (m_options.frames && m_frames >= *m_options.frames) || stop_signal() != 0;
    if (m_f_stopped) return false;

    const Frame frame = m_input.library().make_frame();
    if (!m_input.demuxer()->readFrame(frame.get())) {
        // A source that waits ends its reads at a signal.
        m_f_stopped = stop_signal() != 0;
        return false;
    }
    if (m_input.format().f_times) {
        uint32_t pts = 0;
        m_muxer->getPts(frame.get(), pts);
        const int64_t time_ms = m_clock.follow(pts);
        m_f_stopped = m_options.to_ms && time_ms >= *m_options.to_ms;
        if (m_f_stopped) return false;
        if (time_ms < m_leave_out_to_ms) return true;
        m_clock.count();
    }
    if (!m_muxer->writeFrame(frame.get()))
        throw NotDone(m_input.source().path(),
                      fmt::format("frame {} can't be written", m_frames + 1));
    ++m_frames;
    return true;
}

// By what ends the work: the frames wanted, the time, or else the end of the file.
double Pump::part_done() const
{
    if (m_options.frames)
        return static_cast<double>(m_frames) / static_cast<double>(*m_options.frames);
    const int64_t start_ms = m_options.start_ms.value_or(0);
    if (end_ms() > start_ms)
        return static_cast<double>(m_clock.reached_ms() - start_ms) /
               static_cast<double>(end_ms() - start_ms);
    const Source &source = m_input.source();
    if (source.size() == 0) return 0;
    return static_cast<double>(source.position()) / static_cast<double>(source.size());
}

// Where the work ends by time, in milliseconds; 0 where that isn't known.
int64_t Pump::end_ms() const
{
    const int64_t duration_ms = m_content.duration;
    if (!m_options.to_ms) return duration_ms;
    const int64_t to_ms = *m_options.to_ms;
    return duration_ms != 0 ? std::min(to_ms, duration_ms) : to_ms;
}

std::string Pump::why_nothing_came() const
{
    if (!m_input.source().fault().empty()) return m_input.source().fault();
    if (stop_signal() != 0) return fmt::format("stopped by {}", stop_signal_name());
    if (m_f_stopped) return fmt::format("no frame lies before {}", time_text(*m_options.to_ms));
    if (m_options.start_ms)
        return fmt::format("no frame follows {}", time_text(*m_options.start_ms));
    return "no video or sound in it can be read";
}

std::string Pump::fault_in_input() const
{
    if (!m_input.source().fault().empty()) return m_input.source().fault();
    if (m_f_stopped) return "";
    const std::string fault = fault_of_ending();
    return fault.empty() ? m_input.source().doubt() : fault;
}

std::string Pump::fault_of_ending() const
{
    const Source &source = m_input.source();
    const Format &format = m_input.format();
    // Records of one size: what isn't in a frame was no packet, or only part of one.
    if (format.record_size != 0) {
        const uint64_t used = m_frames * format.record_size;
        if (used >= source.size()) return "";
        return fmt::format("{} of its {} are in none of the packets read", source.size() - used,
                           counted(source.size(), "byte"));
    }

    // Where the duration isn't known, only a large part of the file that nobody asked for says
    // something. A little of it is tags behind the last frame.
    constexpr uint64_t UNREAD_TAIL = 4;  // a fourth of the file
    if (m_content.duration == 0) {
        if (source.unread() <= source.size() / UNREAD_TAIL) return "";
        return fmt::format("ended early: the last {} of its {} were not read", source.unread(),
                           counted(source.size(), "byte"));
    }

    // The last frame begins before the end, by its own length, and the tracks of a file differ a
    // little; much where the duration is that of a track that isn't chosen, like subtitles or a
    // second sound. Sound without a frame length, whose frames all have one time, tells nothing.
    const int64_t slack_ms = format.f_duration_of_all
                                 ? std::clamp<int64_t>(end_ms() / 5, 500, 20000)
                                 : std::clamp<int64_t>(end_ms() / 20, 500, 5000);
    const int64_t missing_ms = end_ms() - m_clock.reached_ms();
    if (m_clock.longest_step_ms() == 0) return "";
    if (missing_ms <= slack_ms + 2 * m_clock.longest_step_ms()) return "";
    return fmt::format("ended early: at {} of {}", time_text(m_clock.reached_ms()),
                       time_text(end_ms()));
}

namespace {

std::unique_ptr<Source> open_source(const InputOptions &options)
{
    if (is_url(options.path)) return open_http_source(options.path, options.http);
    return std::make_unique<FileSource>(options.path);
}

// By the user, else by the first bytes, else by the file's name.
Format choose_format(const InputOptions &options, Source &source)
{
    const Format *format = nullptr;
    if (!options.format.empty()) {
        format = format_of_name(options.format);
        // The library decides about names that aren't known here.
        if (format == nullptr) return {options.format.c_str(), 0, true, true};
    } else {
        uint8_t head[RECOGNISE_SIZE] = {};
        const size_t size = read_head(source, head, RECOGNISE_SIZE);
        format = format_of_bytes(head, size);
        const std::string extension = extension_of(source.path());
        if (format == nullptr && !extension.empty()) format = format_of_name(extension);
        if (format == nullptr && !source.fault().empty())
            throw NotDone(source.path(), source.fault());
        if (format == nullptr)
            throw NotDone(source.path(), "format not recognised; --format names it");
    }
    if (!format->f_times && (options.start_ms || options.to_ms))
        throw BadUsage(fmt::format("{}: the frames of {} have no times; --start and --to don't "
                                   "work with it",
                                   source.path(), format->name));
    return *format;
}

// Reads until the head is whole, or nothing more comes; leaves the source at its start.
size_t read_head(Source &source, uint8_t *head, size_t size)
{
    size_t got = 0;
    while (got < size) {
        const int count = source.read(head + got, static_cast<int>(size - got));
        if (count == 0) break;
        if (count > 0) got += static_cast<size_t>(count);  // below 0: nothing has come yet
    }
    source.seek(0, SEEK_SET);
    return got;
}

// Without its dot; of a URL's path.
std::string extension_of(const std::string &path)
{
    const std::string name = is_url(path) ? path.substr(0, path.find_first_of("?#")) : path;
    const std::string dotted = std::filesystem::path(name).extension().string();
    return dotted.size() > 1 ? dotted.substr(1) : "";
}

Demuxer open_demuxer(Library &library, const Format &format, Source &source)
{
    prepare_heap(static_cast<size_t>(std::min(source.size(), READ_AHEAD)) + SMALLER_THINGS);
    Demuxer demuxer =
        library.make_demuxer(format.name, source, static_cast<int64_t>(source.size()));
    if (demuxer == nullptr)
        throw NotDone(source.path(),
                      fmt::format("format {} not supported by this library", format.name));
    if (demuxer->isValid()) return demuxer;
    if (!source.fault().empty()) throw NotDone(source.path(), source.fault());
    if (stop_signal() != 0)
        throw NotDone(source.path(), fmt::format("stopped by {}", stop_signal_name()));
    throw NotDone(source.path(), fmt::format("not a sound {} file", format.name));
}

}  // namespace
