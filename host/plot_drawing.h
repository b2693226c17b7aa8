// A timeline as an SVG: bit rates, how far the streams are apart in the file, key pictures.

#ifndef HOST_PLOT_DRAWING_H
#define HOST_PLOT_DRAWING_H

#include <string>

#include "io/printer.h"
#include "stream/timeline.h"

/// timeline: finished, and not empty. Only what is in it gets a place in the picture.
void draw_timeline(const Timeline &timeline, const std::string &title, Printer &printer);

#endif
