// How a server is asked for a file.

#ifndef HOST_IO_HTTP_OPTIONS_H
#define HOST_IO_HTTP_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

struct HttpOptions {
    uint32_t timeout_s = 20;  ///< without data, after which a server is given up; up to 120
    std::vector<std::string> headers;  ///< "name: value", sent with each request
    std::string ca_file;      ///< PEM file of the certificates trusted; empty: the system's
    bool f_netrc = false;     ///< names and passwords come from ~/.netrc
    bool f_insecure = false;  ///< any certificate will do
};

/// Refuses what is no field, and fields that the program sends itself. Throws BadUsage.
void check_headers(const std::vector<std::string> &headers);

#endif
