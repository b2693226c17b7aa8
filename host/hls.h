// The subcommand hls: a media file in, a folder of playlists and segments out.

#ifndef HOST_HLS_H
#define HOST_HLS_H

#include <string>

#include "io/message.h"
#include "stream/input.h"

struct HlsOptions {
    InputOptions input;
    std::string folder;
    bool f_force = false;
    bool f_quiet = false;
};

/// Throws NotDone or BadUsage. The playlists come last: without them nothing is served.
ExitStatus hls(const HlsOptions &options);

#endif
