// What golt info says of the tracks of a file, by its outline.

#ifndef HOST_TRACK_TEXT_H
#define HOST_TRACK_TEXT_H

#include <optional>
#include <string>

#include "outline.h"
#include "selection.h"
#include "stream/json_text.h"

/// Lines for people: the tracks, and what concerns the whole file.
std::string tracks_text(const Outline &outline, const Selection &selection);
std::string file_text(const Outline &outline, const Selection &selection);

/// For programs: fields of golt.info/1.
void add_tracks(Json &json, const Outline &outline, const Selection &selection);

/// Whether the file can be sought in, and by what.
struct Seeking {
    bool f_indexed;
    std::string reason;
};
Seeking seeking_of(const Outline &outline, const Selection &selection);

#endif
