// What is found out of a file of each format. Each completes the film: segments, and what making them needs.

#ifndef HOST_HLS_SURVEY_H
#define HOST_HLS_SURVEY_H

#include <functional>

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
/// about. Returns the time of the first picture, or without video that of the first frame of audio, since the film's
/// begin.
int64_t look_at_begin(Source &source, Film &film, uint64_t place, int64_t time);
/// The written time of a file's own one, ticks; since the film's begin. kind: with the offset of which track.
int64_t film_time(const Film &film, int64_t file_time, TrackKind kind);
/// The other way round.
int64_t time_in_file(const Film &film, int64_t time, TrackKind kind);
/// What has to be added to the times of audio that begins at a cluster, ticks of 90 kHz: the library takes the ticks of
/// any file for milliseconds.
int64_t later_at_cluster(Source &source, const Film &film, uint64_t cluster);
/// Cuts audio alone by its frames, into segments of the usual length. place_of: where to begin for a time since the
/// film's begin, so that it comes soon.
void plan_by_time(Film &film, int64_t end, uint64_t bytes,
                  const std::function<uint64_t(int64_t time)> &place_of);
/// The next frame of audio at or after a time since the film's begin: its exact time.
int64_t frame_time_at(const Film &film, int64_t time);

/// Bytes of transport packets for frames and the bytes in them, at most.
uint64_t served_bytes(uint64_t bytes, uint64_t frames);

#endif
