// The subcommand check: what a strict receiver would reject in the stream that is made from an
// input.

#ifndef HOST_CHECK_H
#define HOST_CHECK_H

#include <string>
#include <vector>

#include "io/message.h"
#include "io/printer.h"
#include "stream/input.h"

struct CheckOptions {
    InputOptions input;              ///< its path stays empty
    std::vector<std::string> paths;  ///< one or more
    bool f_json = false;
};

/// EXIT_DONE_WITH_FAULTS when something was found. Throws NotDone or BadUsage.
ExitStatus check(const CheckOptions &options, Printer &printer);

#endif
