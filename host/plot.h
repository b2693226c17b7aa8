// The subcommand plot: the course of an input as a picture.

#ifndef HOST_PLOT_H
#define HOST_PLOT_H

#include <string>

#include "descriptor.h"
#include "input.h"
#include "message.h"

struct PlotOptions {
    InputOptions input;
    std::string output;  ///< "-": the standard output
    bool f_force = false;
};

/// Writes an SVG. Throws NotDone or BadUsage.
ExitStatus plot(const PlotOptions &options, Descriptor standard_output);

#endif
