// What the server reports of itself.

#ifndef HOST_SERVE_STATUS_H
#define HOST_SERVE_STATUS_H

#include <string>

#include "shared.h"

/// start: seconds since 1970.
std::string status_json(const Shared &shared, int64_t start);
/// The same in the text format of Prometheus, version 0.0.4.
std::string status_metrics(const Shared &shared, int64_t start);

#endif
