// A process that accepts connections and answers requests: from the cache, or after a maker has done
// its part. It never waits for anything but all at once.

#ifndef HOST_SERVE_SERVER_H
#define HOST_SERVE_SERVER_H

#include <csignal>
#include <vector>

#include "job.h"
#include "page.h"
#include "shared.h"
#include "tree.h"

/// What a server needs of the process that starts it. All of it outlives the server.
struct ServerSetting {
    size_t slot;
    const Tree &tree;
    Shared &shared;
    const PageParts &parts;
    const Channel &jobs;
    const Channel &replies;
    size_t makers;  ///< their number
    int listener;
    unsigned connections;       ///< of this server
    uint64_t from_one_address;  ///< of all servers
    /// A connection on which nothing moves for so long is closed. A request has to be whole within twice that, from
    /// the end of the answer before it on.
    unsigned idle_seconds;
    int64_t request_seconds() const { return int64_t{2} * idle_seconds; }
    int64_t start;  ///< of all, seconds since 1970
};

/// Returns after SIGTERM. waiting: the signals to let through while it waits.
void run_server(const ServerSetting &setting, const sigset_t &waiting);

#endif
