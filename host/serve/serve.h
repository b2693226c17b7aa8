// The command "serve": a folder of films for players that read HLS (RFC 8216). Segments are made when
// they are asked for, and kept in memory alone.
//
// One process starts the others and replaces those that die. Servers accept on one socket and talk to
// clients; they never read a file. Makers read files, one at a time, and talk to nobody but the servers:
// so a file that is slow, or brings its maker down, disturbs no client of another.

#ifndef HOST_SERVE_SERVE_H
#define HOST_SERVE_SERVE_H

#include <cstdint>
#include <string>
#include <vector>

#include "io/http_options.h"
#include "io/message.h"

struct ServeOptions {
    std::vector<std::string> paths;  ///< of folders and files, or URLs of files
    std::string address = "127.0.0.1";
    uint16_t port = 8080;  ///< 0: any that is free
    uint64_t cache_size = 32 * 1024 * 1024;
    uint64_t workers = 0;         ///< 0: as many as processors
    uint64_t connections = 1024;  ///< in all
    uint64_t from_one_address = 128;
    uint32_t idle_seconds = 30;  ///< see ServerSetting
    std::string hls_js;          ///< a file; empty: an installed one, if there is any
    HttpOptions http;            ///< for URLs
};

/// Serves until a signal comes. Throws NotDone or BadUsage.
ExitStatus serve(const ServeOptions &options);

#endif
