#include "hls.h"

#include <filesystem>

#include <unistd.h>

#include <fmt/format.h>

#include "hls/film.h"
#include "io/interrupt.h"
#include "io/output.h"
#include "io/progress.h"
#include "io/sink.h"
#include "stream/time_text.h"

namespace {

const char *const MEDIA_PLAYLIST = "index.m3u8";
const char *const MASTER_PLAYLIST = "master.m3u8";

/// A folder in which files of one film are written.
class Folder {
public:
    Folder(const HlsOptions &options, const Source &source);
    void remove(const std::string &name);
    void write(const std::string &name, const uint8_t *bytes, size_t size);
    void write(const std::string &name, const std::string &text)
    {
        write(name, reinterpret_cast<const uint8_t *>(text.data()), text.size());
    }
    uint64_t bytes() const { return m_bytes; }

private:
    const std::filesystem::path m_path;
    const struct stat m_input;
    const bool m_f_force;
    uint64_t m_bytes = 0;
};

void report(const HlsOptions &options, const Film &film, const Folder &folder, double seconds);

}  // namespace

ExitStatus hls(const HlsOptions &options)
{
    const std::unique_ptr<Source> source = open_source(options.input);
    const Film film = survey_film(*source);
    if (!film.refusal.empty()) throw NotDone(source->path(), film.refusal);
    const std::string &named = options.input.format;
    const Format *const format = format_of_name(named);
    if (!named.empty() && (format == nullptr || format->container != film.file.outline.container))
        throw NotDone(source->path(), fmt::format("isn't in the format {}", named));
    Folder folder(options, *source);
    Progress progress(!options.f_quiet && isatty(STDERR_FILENO) != 0);
    std::vector<uint8_t> segment;
    for (size_t i = 0; i < film.segments.size(); ++i) {
        const std::string fault = make_segment(*source, film, i, segment);
        if (stop_signal() != 0)
            throw NotWritten(options.folder, fmt::format("stopped by {}", stop_signal_name()));
        if (!fault.empty()) throw NotDone(source->path(), fmt::format("segment {}: {}", i, fault));
        if (i == 0) {
            // Those of an older film would lead to segments of both.
            folder.remove(MASTER_PLAYLIST);
            folder.remove(MEDIA_PLAYLIST);
        }
        folder.write(std::to_string(i) + ".ts", segment.data(), segment.size());
        if (progress.is_due(folder.bytes()))
            progress.show(folder.bytes(),
                          static_cast<double>(i + 1) / static_cast<double>(film.segments.size()),
                          time_text(film.segments[i].end / TICKS_PER_MS));
    }
    folder.write(MEDIA_PLAYLIST, media_playlist(film));
    folder.write(MASTER_PLAYLIST, master_playlist(film, MEDIA_PLAYLIST));
    progress.clear();
    report(options, film, folder, progress.seconds());
    for (const std::string &loss : film.file.selection.losses)
        say(fmt::format("golt: {}: no {}", source->path(), loss));
    if (film.f_cut) say(fmt::format("golt: {}: the file was cut off", source->path()));
    const bool f_whole = film.file.selection.losses.empty() && !film.f_cut;
    return f_whole ? EXIT_DONE : EXIT_DONE_WITH_FAULTS;
}

namespace {

Folder::Folder(const HlsOptions &options, const Source &source)
    : m_path(options.folder)
    , m_input(source.status())
    , m_f_force(options.f_force)
{
    std::error_code error;
    std::filesystem::create_directory(m_path, error);
    if (!std::filesystem::is_directory(m_path))
        throw NotWritten(options.folder, error ? error.message() : "is no folder");
    // Of a longer film segments would be left.
    if (!m_f_force && !std::filesystem::is_empty(m_path, error))
        throw NotWritten(options.folder, "isn't empty; --force replaces what is in the way");
}

void Folder::remove(const std::string &name)
{
    const std::string path = (m_path / name).string();
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && is_same_file(status, m_input))
        throw NotWritten(path, "is the input itself");
    if (unlink(path.c_str()) != 0 && errno != ENOENT) throw NotWritten(path, error_text(errno));
}

void Folder::write(const std::string &name, const uint8_t *bytes, size_t size)
{
    Output output((m_path / name).string(), Descriptor(), m_input, m_f_force);
    for (size_t done = 0; done < size;) {
        const ssize_t count = ::write(output.descriptor(), bytes + done, size - done);
        if (count < 0 && errno == EINTR && stop_signal() == 0) continue;
        if (count < 0) throw NotWritten(output.name(), error_text(errno));
        done += static_cast<size_t>(count);
    }
    output.complete();
    m_bytes += size;
}

void report(const HlsOptions &options, const Film &film, const Folder &folder, double seconds)
{
    if (options.f_quiet) return;
    const int64_t length_ms = film.duration / TICKS_PER_MS;
    say(fmt::format("{}: {}, {}, {}{}", options.folder, counted(film.segments.size(), "segment"),
                    counted(folder.bytes(), "byte"), time_text(length_ms),
                    speed_text(length_ms, seconds, ", ")));
    for (const std::string &note : film.file.selection.notes)
        say(fmt::format("{}: left out: {}", options.input.path, note));
}

}  // namespace
