// What is found out of a file of each format. Each completes the film: segments, and what making them needs.

#ifndef HOST_HLS_SURVEY_H
#define HOST_HLS_SURVEY_H

#include "film.h"
#include "plan.h"

// Throw NotDone.
void survey_mp4(Source &source, Film &film);
void survey_matroska(Source &source, Film &film);
void survey_mpeg_audio(Source &source, Film &film);
void survey_m2ts(Source &source, Film &film);

/// The track of a kind that the library takes; null.
const Track *taken_track(const Film &film, TrackKind kind);
/// Reads the first frames from a place on, for the film's begin and the times of its audio. time: of the library there,
/// about. later: what is added to its times of audio. Returns the time of the first picture, or without video that of the
/// first frame of audio, since the film's begin.
int64_t look_at_begin(Source &source, Film &film, uint64_t place, int64_t time, int64_t later = 0);
/// The written time of a file's own one, ticks; since the film's begin. kind: with the offset of which track.
int64_t film_time(const Film &film, int64_t file_time, TrackKind kind);
/// The other way round.
int64_t time_in_file(const Film &film, int64_t time, TrackKind kind);

/// The times that the stage gives to the frames of audio, one after the other: those of a grid as long as the library's
/// are near it; else the library's own, where another grid begins.
class FrameTimes {
public:
    explicit FrameTimes(const Film &film);

    /// Goes to the next frame. told: the library's time, without offsets; ticks of 90 kHz.
    void add(int64_t told);
    /// Of the frame, since the film's begin.
    int64_t time() const { return film_time(m_film, m_time, TrackKind::AUDIO); }
    /// What the library would tell for the next frame, if it follows.
    int64_t next() const { return m_next; }
    /// Of that one, since the film's begin.
    int64_t end() const { return film_time(m_film, m_next, TrackKind::AUDIO); }
    /// How much later than the first one the frame's grid begins.
    int64_t later() const { return m_begin - m_first; }

private:
    const Film &m_film;
    const golt::AudioGrid &m_grid;
    const int64_t m_first;
    int64_t m_begin, m_time;
    // The next frame's, if it follows, and what was cut off to whole ticks, times the rate.
    int64_t m_next;
    int64_t m_rest;
};

/// Bytes of transport packets for frames and the bytes in them, at most.
uint64_t served_bytes(uint64_t bytes, uint64_t frames);

#endif
