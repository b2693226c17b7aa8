// A file on an HTTP server as the library's input.

#ifndef HOST_IO_HTTP_SOURCE_H
#define HOST_IO_HTTP_SOURCE_H

#include <memory>

#include "source.h"

/// url: begins with http:// or https://. timeout_s: after so many seconds without data the server
/// is given up. Throws NotDone.
std::unique_ptr<Source> open_http_source(const std::string &url, uint32_t timeout_s);

#endif
