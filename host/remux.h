// The subcommand remux: a media file in, a transport stream out.

#ifndef HOST_REMUX_H
#define HOST_REMUX_H

#include <cstdint>
#include <optional>
#include <string>

#include "descriptor.h"
#include "message.h"

struct RemuxOptions {
    std::string input;
    std::string output;  ///< "-": the standard output
    std::string format;  ///< a name that the library knows; empty: found out
    std::optional<uint32_t> start_ms;
    std::optional<uint32_t> to_ms;
    std::optional<uint64_t> frames;
    bool f_force = false;
    bool f_quiet = false;
};

/// Throws NotDone or BadUsage; no new output file stands then.
ExitStatus remux(const RemuxOptions &options, Descriptor standard_output);

#endif
