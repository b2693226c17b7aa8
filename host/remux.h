// The subcommand remux: a media file in, a transport stream out.

#ifndef HOST_REMUX_H
#define HOST_REMUX_H

#include <string>

#include "io/descriptor.h"
#include "io/message.h"
#include "stream/input.h"

struct RemuxOptions {
    InputOptions input;
    std::string output;    ///< "-": the standard output
    bool f_as_is = false;  ///< the library's own bytes
    bool f_force = false;
    bool f_quiet = false;
};

/// Throws NotDone or BadUsage; there is no new output file then.
ExitStatus remux(const RemuxOptions &options, Descriptor standard_output);

#endif
