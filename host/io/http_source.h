// A file on an HTTP server as the library's input.

#ifndef HOST_IO_HTTP_SOURCE_H
#define HOST_IO_HTTP_SOURCE_H

#include <memory>

#include "http_options.h"
#include "source.h"

/// url: begins with http:// or https://. options: have to outlive the source. Throws NotDone.
std::unique_ptr<Source> open_http_source(const std::string &url, const HttpOptions &options);

#endif
