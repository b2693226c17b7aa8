#include "input.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "completeness.h"
#include "heap.h"
#include "io/http_source.h"
#include "io/interrupt.h"
#include "io/message.h"
#include "source_bytes.h"
#include "time_text.h"

namespace {

// What is taken after the library's pool: what it reads ahead, as far as there is so much, and then
// tables, the buffer of an output and the first frames.
constexpr uint64_t READ_AHEAD = 1024 * 1024;
constexpr size_t SMALLER_THINGS = 256 * 1024;
constexpr double MOST_START_APART = 250;  // ms

Outline outline_of(Source &source);
Format choose_format(const InputOptions &options, Source &source, const Outline &outline);
std::string why_no_format(const uint8_t *head, size_t size);
size_t read_head(Source &source, uint8_t *head, size_t size);
std::string extension_of(const std::string &path);
Demuxer open_demuxer(Library &library, const Format &format, Source &source);

}  // namespace

std::unique_ptr<Source> open_source(const InputOptions &options)
{
    if (is_url(options.path)) return open_http_source(options.path, options.http);
    return std::make_unique<FileSource>(options.path);
}

InputFile::InputFile(const InputOptions &options)
    : m_source(open_source(options))
    , m_outline(outline_of(*m_source))
    , m_format(choose_format(options, *m_source, m_outline))
{
    if (m_format.container == m_outline.container)
        m_selection = select_tracks(m_outline);
    else
        m_outline = {};
}

Input::Input(const InputOptions &options, InputFile file, Order order)
    : m_options(options)
    , m_file(std::move(file))
{
    const std::string &refusal = m_file.selection().refusal;
    if (!refusal.empty() && source().fault().empty()) throw NotDone(source().path(), refusal);
    if (order == Order::BY_TIME) {
        SourceBytes bytes(source());
        m_even_index = make_even_index(bytes, outline(), selection());
        // A part is named by the times of the library, in which both tracks begin at 0.
        const bool f_part = m_options.start_ms || m_options.to_ms;
        if (f_part && m_even_index && m_even_index->start_apart > MOST_START_APART)
            m_even_index.reset();
    }
    if (m_even_index) m_even_source.emplace(source(), *m_even_index);
    m_demuxer = open_demuxer(m_library, format(),
                             m_even_source ? static_cast<Source &>(*m_even_source) : source());
}

Pump::Pump(Input &input, PELA::AVMuxer::Listener &sink)
    : m_input(input)
    , m_options(input.options())
    , m_tally(sink)
    , m_muxer(input.library().make_muxer(input.demuxer(), m_tally))
{
    if (m_muxer == nullptr || !m_muxer->getContentInfo(&m_content))
        throw NotDone(m_input.source().path(), "nothing in it can be played");
    if (!m_input.format().f_times) {
        m_tally.watch_packets();
        return;
    }
    const Selection &selection = m_input.selection();
    if (selection.is_unplayable(m_input.outline(), TrackKind::VIDEO)) m_tally.drop_video();
    if (selection.is_unplayable(m_input.outline(), TrackKind::AUDIO)) m_tally.drop_audio();
    m_tally.begin(m_content);
    m_f_apart = m_options.to_ms && are_apart(m_input.outline(), selection, m_input.even_index());
    if (m_f_apart) m_tally.pass_until(*m_options.to_ms * TICKS_PER_MS);
}

void Pump::seek_to_start()
{
    const uint32_t start_ms = m_options.start_ms.value_or(0);
    if (start_ms == 0) return;
    const std::string &path = m_input.source().path();
    if (const auto end_ms = end_of_tracks_ms(); end_ms && start_ms >= *end_ms)
        throw NotDone(path, fmt::format("no frame follows {}: it ends at {}", time_text(start_ms),
                                        time_text(*end_ms)));
    const std::optional<SyncPoint> point = find_start(start_ms);
    if (!point)
        throw NotDone(path, fmt::format("can't be sought to {}: nothing leads to its key pictures",
                                        time_text(start_ms)));
    // A seek that the library refuses leaves the place as it was; then all up to the start is read.
    const bool f_moved = point->ask_ms && m_input.demuxer()->seekToTime(*point->ask_ms);
    if (f_moved) {
        // What it was asked for may be hours from the times there: of MP4 it counts samples.
        const int64_t around = std::max<int64_t>(point->from_ms, 0) * TICKS_PER_MS;
        m_clock.begin_around(around);
        m_tally.expect_around(around);
    }
    m_tally.pass_from(point->from_ms * TICKS_PER_MS);
}

std::optional<SyncPoint> Pump::find_start(uint32_t start_ms)
{
    const bool f_video = m_content.videoCodec != PELA::VIDEO_CODEC_UNKNOWN;
    if (m_input.outline().container == Container::UNKNOWN) {
        // Audio can begin at any frame.
        if (!f_video) return SyncPoint{{}, start_ms};
        if (m_input.demuxer()->seekToTime(start_ms)) return SyncPoint{{}, 0};
        return {};
    }
    SourceBytes bytes(m_input.source());
    return find_sync_point(bytes, m_input.outline(), m_input.selection(), start_ms,
                           is_url(m_options.path), m_input.even_index());
}

// Of the longest of the tracks that are taken.
std::optional<int64_t> Pump::end_of_tracks_ms() const
{
    constexpr int64_t NS_PER_MS = 1000000;
    std::optional<int64_t> end_ms;
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const auto index = m_input.selection().taken(m_input.outline(), kind);
        if (!index) continue;
        const std::optional<int64_t> &duration = m_input.outline().tracks[*index].duration_ns;
        if (!duration || m_input.outline().mpeg_audio.f_estimate) return {};
        end_ms = std::max(end_ms.value_or(0), *duration / NS_PER_MS);
    }
    return end_ms;
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
        const EvenIndex *const even = m_input.even_index();
        if (even != nullptr && even->is_filler(pts)) return true;
        const int64_t time_ms = m_clock.follow(pts);
        m_f_stopped =
            m_f_apart ? m_tally.has_ended() : m_options.to_ms && time_ms >= *m_options.to_ms;
        if (m_f_stopped) return false;
    }
    if (!m_muxer->writeFrame(frame.get()))
        throw NotDone(m_input.source().path(),
                      fmt::format("frame {} can't be written", m_frames + 1));
    const uint64_t before = m_frames;
    m_frames = m_input.format().f_times ? m_tally.passed() : m_frames + 1;
    if (m_frames > before) m_clock.count();
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
    if (m_f_stopped) return fmt::format("no frame is before {}", time_text(*m_options.to_ms));
    if (m_options.start_ms)
        return fmt::format("no frame follows {}", time_text(*m_options.start_ms));
    if (m_input.outline().mp4.f_moov_cut) return "moov is cut off: no track in it is whole";
    return "no video or audio in it can be read";
}

std::string Pump::fault_in_input()
{
    Source &source = m_input.source();
    if (!source.fault().empty()) return source.fault();
    std::string fault;
    if (m_input.format().record_size != 0) {
        if (!m_f_stopped) fault = fault_of_records();
    } else {
        SourceBytes bytes(source);
        fault = find_loss({m_input.outline(), m_input.selection(), m_tally, is_url(m_options.path),
                           m_f_stopped, m_options.start_ms.value_or(0),
                           m_f_apart ? *m_options.to_ms : INT64_MAX},
                          bytes);
    }
    if (m_f_stopped || source.doubt().empty()) return fault;
    return fault + (fault.empty() ? "" : "; ") + source.doubt();
}

// Records of one size: what isn't in a frame was no packet, or only part of one.
std::string Pump::fault_of_records() const
{
    const Source &source = m_input.source();
    const uint64_t used = m_frames * m_input.format().record_size;
    const uint64_t missing = m_tally.packets().missing();
    if (used >= source.size() && missing > 0)
        return fmt::format("ends within a PES packet, {} missing", counted(missing, "byte"));
    if (used >= source.size()) return "";
    return fmt::format("{} of its {} are in none of the packets read", source.size() - used,
                       counted(source.size(), "byte"));
}

void InputFile::read_details()
{
    SourceBytes bytes(*m_source);
    ::read_details(bytes, m_outline);
}

namespace {

Outline outline_of(Source &source)
{
    SourceBytes bytes(source);
    return read_outline(bytes);
}

// By the user, else by the first bytes, else by the file's name.
Format choose_format(const InputOptions &options, Source &source, const Outline &outline)
{
    const Format *format = nullptr;
    if (!options.format.empty()) {
        format = format_of_name(options.format);
        // The library decides about names that aren't known here.
        if (format == nullptr)
            return {options.format.c_str(), 0, true, options.format.c_str(), Container::UNKNOWN};
    } else {
        uint8_t head[RECOGNISE_SIZE] = {};
        const size_t size = read_head(source, head, RECOGNISE_SIZE);
        format = format_of_bytes(head, size);
        // Packets need not begin with the file.
        const bool f_packets = outline.container == Container::TRANSPORT_STREAM;
        const bool f_stamped = f_packets && outline.transport.packet_size == 192;
        if (format == nullptr && f_packets) format = format_of_name(f_stamped ? "m2ts" : "ts");
        const std::string extension = extension_of(source.path());
        if (format == nullptr && !extension.empty()) format = format_of_name(extension);
        if (format == nullptr && !source.fault().empty())
            throw NotDone(source.path(), source.fault());
        if (format == nullptr) throw NotDone(source.path(), why_no_format(head, size));
    }
    if (!format->f_times && (options.start_ms || options.to_ms))
        throw BadUsage(fmt::format("{}: the frames of {} have no times; --start and --to don't "
                                   "work with it",
                                   source.path(), format->name));
    return *format;
}

std::string why_no_format(const uint8_t *head, size_t size)
{
    const std::string other = why_other_format(head, size);
    return other.empty() ? "format not recognised; --format names it" : other;
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
    throw NotDone(source.path(), fmt::format("not a valid {} file", format.name));
}

}  // namespace
