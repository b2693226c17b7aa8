// What the stage that completes the stream learns from a file's outline.

#ifndef HOST_STREAM_STAGE_HINTS_H
#define HOST_STREAM_STAGE_HINTS_H

#include <string>
#include <vector>

#include "golt_stage.h"
#include "io/recognise.h"
#include "io/source.h"
#include "selection.h"

struct StageSetup {
    golt::StageHints hints;          ///< points into the outline
    std::vector<std::string> notes;  ///< edit lists that aren't applied as they are, a line each
};

/// source: of the outline, which has to outlive the hints. format: in which it is remuxed.
StageSetup stage_setup(const Source &source, const Outline &outline, const Selection &selection,
                       const Format &format);

#endif
