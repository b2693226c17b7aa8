// The subcommand frames: a line for each frame, as it is read.

#ifndef HOST_FRAMES_H
#define HOST_FRAMES_H

#include <cstdint>
#include <optional>

#include "io/message.h"
#include "io/printer.h"
#include "stream/input.h"

struct FramesOptions {
    InputOptions input;
    std::optional<uint64_t> count;
    bool f_json = false;
    bool f_csv = false;
};

/// Throws NotDone or BadUsage.
ExitStatus frames(const FramesOptions &options, Printer &printer);

#endif
