// Which tracks of a file the library takes, and why not the others. The library reports neither:
// its rules are repeated here, for people.

#ifndef HOST_OUTLINE_SELECTION_H
#define HOST_OUTLINE_SELECTION_H

#include <string>
#include <vector>

#include "outline.h"

enum class Fate {
    TAKEN,
    LEFT_OUT,    ///< nothing of it comes out of the library
    UNPLAYABLE,  ///< the library writes its frames, but nobody can play them
};

struct Choice {
    Fate fate = Fate::LEFT_OUT;
    std::string reason;  ///< why it isn't taken: "subtitles", "Opus isn't remuxed"
};

struct Selection {
    std::vector<Choice> choices;  ///< one for each of Outline::tracks
    std::string refusal;  ///< why nothing of the file can be remuxed; empty where something can
    /// The only audio, or the only video, of the file isn't taken; with what it is and why, a line each.
    std::vector<std::string> losses;
    /// What else isn't taken that a user may look for, a line each.
    std::vector<std::string> notes;

    /// The track of a kind that is taken, by its index; none.
    std::optional<size_t> taken(const Outline &outline, TrackKind kind) const;
    /// Whether the library writes frames of a kind that nobody can play.
    bool is_unplayable(const Outline &outline, TrackKind kind) const;
};

Selection select_tracks(const Outline &outline);

/// A codec's usual name: "HEVC" of "hvc1" or "V_MPEGH/ISO/HEVC"; the track's own where there is none.
std::string codec_title(const Outline &outline, const Track &track);
struct AudioFigures {
    uint32_t channels, sample_rate;  ///< hertz; 0: not stated
};
AudioFigures audio_figures(const Outline &outline, const Track &track);
/// Of H.264, by its decoder configuration: "High", "4.1"; empty where that isn't stated.
std::string h264_profile(const Outline &outline, const Track &track);
std::string h264_level(const Outline &outline, const Track &track);
/// "video", "audio", "subtitles", "chapters", or "data".
std::string kind_name(const Track &track);

#endif
