// What the stage that completes the stream learns from a file's outline.

#ifndef HOST_STREAM_STAGE_HINTS_H
#define HOST_STREAM_STAGE_HINTS_H

#include <string>
#include <vector>

#include "golt_stage.h"
#include "selection.h"

struct StageSetup {
    golt::StageHints hints;          ///< points into the outline
    std::vector<std::string> notes;  ///< edit lists that aren't applied as they are, a line each
};

/// outline: has to outlive the hints. f_packets: the file has ready-made packets.
StageSetup stage_setup(const Outline &outline, const Selection &selection, bool f_packets);

#endif
