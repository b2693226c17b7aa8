// Commands that take several inputs.

#ifndef HOST_SEVERAL_H
#define HOST_SEVERAL_H

#include <functional>
#include <string>
#include <vector>

#include "io/message.h"
#include "io/printer.h"

/// Runs a command for each path, one after the other. What goes wrong with one is said, and with f_json
/// printed as a document, and the next one follows. Returns the worst status. With a single path,
/// exceptions pass.
ExitStatus for_each_input(const std::vector<std::string> &paths, bool f_json, Printer &printer,
                          const std::function<ExitStatus(const std::string &path)> &run);

#endif
