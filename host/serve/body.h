// A body that is sent from the cache, at the pace of the client. What goes from the cache before it is
// sent is made again: so slow clients hold no memory, and the work for one is in proportion to what
// it takes.

#ifndef HOST_SERVE_BODY_H
#define HOST_SERVE_BODY_H

#include "exchange.h"

/// A response with size bytes from first on of the result of the job; null when there is no memory.
MHD_Response *make_body(ServerContext &context, Peer &peer, const Job &job, uint64_t first,
                        uint64_t size);

#endif
