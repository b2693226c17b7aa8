// The subcommand plot: the course of an input as a picture.

#ifndef HOST_PLOT_H
#define HOST_PLOT_H

#include <string>

#include "io/descriptor.h"
#include "io/message.h"
#include "stream/input.h"

struct PlotOptions {
    InputOptions input;
    std::string output;  ///< "-": the standard output
    bool f_force = false;
};

/// Writes an SVG. Throws NotDone or BadUsage.
ExitStatus plot(const PlotOptions &options, Descriptor standard_output);

#endif
