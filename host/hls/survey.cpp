#include "survey.h"

#include <algorithm>

#include "io/message.h"
#include "segment_run.h"
#include "ts_clock.h"

namespace {

// By which the stage moves times, where that is enough.
constexpr int64_t USUAL_SHIFT = TICKS_PER_SECOND;

}  // namespace

const Track *taken_track(const Film &film, TrackKind kind)
{
    const std::optional<size_t> index = film.file.selection.taken(film.file.outline, kind);
    return index ? &film.file.outline.tracks[*index] : nullptr;
}

int64_t look_at_begin(Source &source, Film &film, uint64_t place, int64_t time, int64_t later)
{
    std::vector<uint8_t> none;
    Cutter cutter({INT64_MAX / 2, {}, true}, none, 0);
    SegmentRun run(source, film, {place, source.size(), later, time}, cutter);
    run.look();
    std::optional<int64_t> video = cutter.first_video(), audio = cutter.first_audio();
    if (!video && !audio)
        throw NotDone(source.path(),
                      source.fault().empty() ? "no frame in it can be read" : source.fault());
    FilmFile &file = film.file;
    const golt::StageHints hints = stage_setup(file.outline, file.selection, false).hints;
    file.video_offset = hints.video.offset;
    file.audio_offset = hints.audio.offset;
    file.more_shift = run.stage().shift() - USUAL_SHIFT;
    const int64_t shifted = time + later + run.stage().shift();
    const auto whole_time = [&](int64_t first, int64_t offset) {
        return CutClock(PTS_BITS, shifted + offset).follow(static_cast<uint64_t>(first));
    };
    if (video) video = whole_time(*video, file.video_offset);
    if (audio) audio = whole_time(*audio, file.audio_offset);
    file.audio_grid = run.stage().audio_grid();
    file.first_time = std::min(video.value_or(INT64_MAX), audio.value_or(INT64_MAX));
    file.video_start = video.value_or(file.first_time) - file.first_time;
    file.audio_start = audio.value_or(file.first_time) - file.first_time;
    return video ? file.video_start : file.audio_start;
}

int64_t film_time(const Film &film, int64_t file_time, TrackKind kind)
{
    const int64_t offset =
        kind == TrackKind::VIDEO ? film.file.video_offset : film.file.audio_offset;
    return file_time + offset + USUAL_SHIFT + film.file.more_shift - film.file.first_time;
}

int64_t time_in_file(const Film &film, int64_t time, TrackKind kind)
{
    return time - film_time(film, 0, kind);
}

FrameTimes::FrameTimes(const Film &film)
    : m_film(film)
    , m_grid(film.file.audio_grid)
    , m_first(m_grid.time - film.file.audio_offset)
    , m_begin(m_first)
    , m_time(m_first)
    , m_next(m_first)
    , m_rest(m_grid.rate / 2)
{
}

void FrameTimes::add(int64_t told)
{
    constexpr int64_t ROUNDING = 2 * TICKS_PER_MS;  // as the stage has it
    const bool f_grid = m_grid.samples != 0 && m_grid.rate != 0;
    if (!f_grid || std::abs(m_next - told) > ROUNDING) {
        m_begin = m_next = told;
        m_rest = m_grid.rate / 2;
    }
    m_time = m_next;
    if (!f_grid) return;
    const int64_t ticks = m_rest + int64_t{m_grid.samples} * TICKS_PER_SECOND;
    m_next += ticks / m_grid.rate;
    m_rest = ticks % m_grid.rate;
}

// Headers of a frame, an access unit delimiter, and the last packet, which is filled up.
uint64_t served_bytes(uint64_t bytes, uint64_t frames)
{
    constexpr uint64_t HEADER = 40, ROOM = TS_PACKET_SIZE - TS_HEADER_SIZE;
    return ((bytes + frames * HEADER) / ROOM + frames) * TS_PACKET_SIZE;
}
