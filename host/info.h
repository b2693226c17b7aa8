// The subcommand info: what an input is, by its headers, or by all of its frames.

#ifndef HOST_INFO_H
#define HOST_INFO_H

#include <string>
#include <vector>

#include "io/message.h"
#include "io/printer.h"
#include "stream/input.h"

struct InfoOptions {
    InputOptions input;              ///< its path stays empty
    std::vector<std::string> paths;  ///< one or more; of several a line is printed for each
    bool f_scan = false;
    bool f_json = false;
};

/// Throws NotDone or BadUsage.
ExitStatus info(const InfoOptions &options, Printer &printer);

#endif
