#include "segment_run.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "io/message.h"

namespace {

// What may be read for a segment: itself, as much before it, and tracks that are left out.
constexpr uint64_t READ_BUDGET = 6 * uint64_t{LARGEST_SEGMENT};

SplicedSource::Stretches stretches_of(const Film &film, const SegmentRun::Begin &begin)
{
    const bool f_by_time = film.file.outline.container == Container::MP4;
    return {film.file.head_end, f_by_time ? film.file.head_end : begin.place, begin.to};
}

StageSetup setup_of(const Film &film, const SegmentRun::Begin &begin)
{
    StageSetup setup = stage_setup(film.file.outline, film.file.selection, false);
    setup.hints.video.offset += film.file.more_shift;
    setup.hints.audio.offset += film.file.more_shift + begin.later;
    setup.hints.audio_grid = film.file.audio_grid;
    setup.hints.audio_grid.time += film.file.more_shift + begin.grid_later;
    setup.hints.begin = begin.time;
    return setup;
}

/// A Matroska file with a cluster at 0 that has no frames.
class EmptyFile final : public Source {
public:
    EmptyFile()
        : Source("")
    {
    }
    int read(uint8_t *buffer, int size) override
    {
        if (size <= 0 || position() >= sizeof BYTES) return 0;
        const auto count = static_cast<int>(
            std::min<uint64_t>(sizeof BYTES - position(), static_cast<uint64_t>(size)));
        memcpy(buffer, BYTES + position(), static_cast<size_t>(count));
        m_position += count;
        return count;
    }
    int64_t seek(int64_t offset, int whence) override
    {
        if (whence != SEEK_SET || offset < 0) return -1;
        m_position = offset;
        return 0;
    }
    uint64_t size() const override { return sizeof BYTES; }

private:
    static constexpr uint8_t BYTES[] = {0x1A, 0x45, 0xDF, 0xA3, 0x80,  // EBML
                                        0x18, 0x53, 0x80, 0x67, 0x88,  // Segment
                                        0x1F, 0x43, 0xB6, 0x75, 0x83,  // Cluster
                                        0xE7, 0x81, 0x00};             // Timestamp
};

// A cluster that lacks its time gets the one that the library has read last, be it of another file. Such a file isn't
// right, but all who make a segment of it are to make the same.
void make_new(Library &library)
{
    EmptyFile file;
    const Demuxer demuxer = library.make_demuxer("mkv", file, static_cast<int64_t>(file.size()));
    if (demuxer != nullptr && demuxer->isValid()) demuxer->readFrame(library.make_frame().get());
}

Demuxer make_demuxer(Library &library, Container container, SplicedSource &source)
{
    if (container == Container::MATROSKA) make_new(library);
    return library.make_demuxer(format_name(container), source,
                                static_cast<int64_t>(source.size()));
}

}  // namespace

SegmentRun::SegmentRun(Source &source, const Film &film, const Begin &begin, Cutter &cutter)
    : m_film(film)
    , m_cutter(cutter)
    , m_source(source, stretches_of(film, begin), film.file.patches, READ_BUDGET)
    , m_demuxer(make_demuxer(m_library, film.file.outline.container, m_source))
    , m_setup(setup_of(film, begin))
    , m_stage(cutter, m_setup.hints)
    , m_tally(m_stage)
{
    const std::string &path = source.path();
    if (!m_stage.is_valid()) throw std::bad_alloc();
    if (m_demuxer == nullptr || !m_demuxer->isValid())
        throw NotDone(path, source.fault().empty() ? "the library can't read it" : source.fault());
    m_muxer = m_library.make_muxer(m_demuxer, m_tally);
    PELA::MediaBuffer::ContentInfo content = {};
    if (m_muxer == nullptr || !m_muxer->getContentInfo(&content))
        throw NotDone(path, "nothing in it can be played");
    const FilmFile &file = film.file;
    if (file.selection.is_unplayable(file.outline, TrackKind::VIDEO)) m_tally.drop_video();
    if (file.selection.is_unplayable(file.outline, TrackKind::AUDIO)) m_tally.drop_audio();
    m_tally.begin(content);
    if (file.outline.container == Container::MP4 && begin.place != 0)
        m_demuxer->seekToTime(static_cast<uint32_t>(begin.place));
}

void SegmentRun::run()
{
    while (!m_cutter.is_done() && !m_cutter.is_full() && copy_frame()) {
    }
    if (!m_cutter.is_done()) m_stage.finish();
    m_cutter.finish();
}

void SegmentRun::look()
{
    // Muxers put streams together that are less than a second apart.
    constexpr uint64_t MOST_BYTES = 16 * 1024 * 1024;
    constexpr int64_t MOST_TIME = 10 * TICKS_PER_SECOND;
    uint64_t frames = 0;
    while (!is_known() && copy_frame()) {
        if (++frames % 8 == 0) m_stage.flush();
        if (m_stage.counts().packets_in * TS_PACKET_SIZE > MOST_BYTES) break;
        if (m_tally.reached() - m_tally.first_passed() > MOST_TIME) break;
    }
    m_stage.finish();
}

// Whether all that the plan needs has come: of audio a whole frame.
bool SegmentRun::is_known() const
{
    const FilmFile &file = m_film.file;
    const bool f_video = file.selection.taken(file.outline, TrackKind::VIDEO).has_value();
    const bool f_audio = file.selection.taken(file.outline, TrackKind::AUDIO).has_value();
    return (!f_video || m_cutter.first_video()) &&
           (!f_audio || m_stage.stage().audio_grid().samples != 0);
}

bool SegmentRun::copy_frame()
{
    const Frame frame = m_library.make_frame();
    if (!m_demuxer->readFrame(frame.get())) return false;
    const std::optional<EvenIndex> &even_index = m_film.file.even_index;
    uint32_t time = 0;
    if (even_index && m_muxer->getPts(frame.get(), time) && even_index->is_filler(time))
        return true;
    return m_muxer->writeFrame(frame.get());
}

const char *format_name(Container container)
{
    switch (container) {
    case Container::MP4: return "mp4";
    case Container::MATROSKA: return "mkv";
    case Container::MPEG_AUDIO: return "mp3";
    case Container::TRANSPORT_STREAM:
    case Container::UNKNOWN: break;
    }
    return "";
}
