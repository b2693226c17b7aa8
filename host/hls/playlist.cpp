// Playlists of a film (RFC 8216).

#include <algorithm>

#include <fmt/format.h>

#include "film.h"
#include "ts_time.h"

namespace {

// A tick is 1/9 more than a unit of the last digit. Rounded to the nearest, also where a file states centuries.
std::string seconds_text(int64_t ticks)
{
    constexpr int64_t UNITS = 100000;
    static_assert(UNITS * 9 == TICKS_PER_SECOND * 10);
    const int64_t units = (ticks * 10 + 4) / 9;
    return fmt::format("{}.{:05}", units / UNITS, units % UNITS);
}

}  // namespace

int64_t target_duration(const Film &film)
{
    int64_t longest = 1;
    for (const Segment &segment : film.segments)
        longest = std::max(longest,
                           (segment.end - segment.start + TICKS_PER_SECOND / 2) / TICKS_PER_SECOND);
    return longest;
}

std::string media_playlist(const Film &film, const std::string &prefix)
{
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-PLAYLIST-TYPE:VOD\n";
    if (film.f_independent) text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    text +=
        fmt::format("#EXT-X-TARGETDURATION:{}\n#EXT-X-MEDIA-SEQUENCE:0\n", target_duration(film));
    for (size_t i = 0; i < film.segments.size(); ++i)
        text += fmt::format("#EXTINF:{},\n{}{}.ts\n",
                            seconds_text(film.segments[i].end - film.segments[i].start), prefix, i);
    return text + "#EXT-X-ENDLIST\n";
}

std::string master_playlist(const Film &film, const std::string &address)
{
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n";
    if (film.f_independent) text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    text += fmt::format("#EXT-X-STREAM-INF:BANDWIDTH={},AVERAGE-BANDWIDTH={}", film.peak_bits,
                        film.average_bits);
    if (!film.codecs.empty()) text += fmt::format(",CODECS=\"{}\"", film.codecs);
    if (film.width != 0) text += fmt::format(",RESOLUTION={}x{}", film.width, film.height);
    if (film.frame_rate > 0) text += fmt::format(",FRAME-RATE={:.3f}", film.frame_rate);
    return text + "\n" + address + "\n";
}
