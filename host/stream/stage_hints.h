// What the stage that completes the stream learns from a file's outline.

#ifndef HOST_STREAM_STAGE_HINTS_H
#define HOST_STREAM_STAGE_HINTS_H

#include <string>
#include <vector>

#include "golt_stage.h"
#include "io/source.h"
#include "selection.h"

struct StageSetup {
    golt::StageHints hints;          ///< points into the outline
    std::vector<std::string> notes;  ///< edit lists that aren't applied as they are, a line each
};

/// outline: has to outlive the hints. f_packets: the library passes packets as they are.
StageSetup stage_setup(const Outline &outline, const Selection &selection, bool f_packets);
/// Whether the edit lists of an MP4 file are where they can't be read in time.
bool are_edits_out_of_reach(const Source &source, const Outline &outline);

#endif
