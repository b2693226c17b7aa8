#include "hls/film.h"

size_t Film::memory() const
{
    return sizeof *this + codecs.size() + kinds.size() + segments.capacity() * sizeof(Segment);
}

Film survey_film(Source &)
{
    Film film;
    film.refusal = "not written yet";
    return film;
}

std::string make_segment(Source &, const Film &film, size_t, std::vector<uint8_t> &)
{
    return film.refusal;
}

std::string media_playlist(const Film &, const std::string &)
{
    return "#EXTM3U\n";
}

std::string master_playlist(const Film &, const std::string &)
{
    return "#EXTM3U\n";
}
