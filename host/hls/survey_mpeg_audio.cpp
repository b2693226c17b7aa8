// MPEG audio has no index that is exact: the file is read once, from header to header, as the library does.

#include <algorithm>

#include "io/message.h"
#include "parsers.h"
#include "stream/source_bytes.h"
#include "survey.h"
#include "ts_time.h"

void survey_mpeg_audio(Source &source, Film &film)
{
    constexpr uint32_t HEADER_SIZE = 4;
    const uint64_t first_frame = *film.file.outline.mpeg_audio.first_frame;
    look_at_begin(source, film, first_frame, 0);
    const golt::AudioGrid &grid = film.file.audio_grid;
    if (grid.samples == 0 || grid.rate == 0)
        throw NotDone(source.path(), "no frame in it can be read");

    SourceBytes bytes(source);
    // A frame has 24 bytes at least.
    Reader reader(bytes, static_cast<uint32_t>(std::min<uint64_t>(
                             source.size() / (Reader::WINDOW_SIZE / 2) + 64, UINT32_MAX)));
    Plan plan(film.segments, {0, first_frame, 0});
    uint64_t at = first_frame, frames = 0;
    for (uint8_t head[HEADER_SIZE]; reader.read(at, head, HEADER_SIZE); ++frames) {
        const uint32_t bits =
            uint32_t{head[0]} << 24 | uint32_t{head[1]} << 16 | uint32_t{head[2]} << 8 | head[3];
        const std::optional<outline::MpegAudioHeader> header =
            outline::parse_mpeg_audio_header(bits);
        if (!header || header->size < HEADER_SIZE) break;
        const int64_t time = static_cast<int64_t>(
            (frames * grid.samples * uint64_t{TICKS_PER_SECOND} + grid.rate / 2) / grid.rate);
        if (time >= plan.due() && !plan.is_full())
            plan.cut({time, at, served_bytes(at - first_frame, frames)});
        at += header->size;
    }
    const auto end =
        static_cast<int64_t>(frames * grid.samples * uint64_t{TICKS_PER_SECOND} / grid.rate);
    plan.end(end, served_bytes(at - first_frame, frames));
}
