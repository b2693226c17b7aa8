// The bodies of answers. One that is sent from the cache goes at the pace of the client. What goes from the cache
// before it is sent is made again: so slow clients hold no memory, and the work for one is in proportion to what it
// takes.

#ifndef HOST_SERVE_BODY_H
#define HOST_SERVE_BODY_H

#include "exchange.h"

/// Bytes; only longer texts count in text_bytes.
constexpr uint64_t SHORT_TEXT = 64 * 1024;

/// A response with size bytes from first on of the result of the job; null when there is no memory.
MHD_Response *make_body(ServerContext &context, Peer &peer, const Job &job, uint64_t first,
                        uint64_t size);
/// A response with size bytes of the text from first on, which holds the text; null when there is no memory.
MHD_Response *make_text(ServerContext &context, std::string text, uint64_t first, uint64_t size);
/// A response that states this length, and of which only the head can be sent; null when there is no memory. With
/// MHD_SIZE_UNKNOWN it states none.
MHD_Response *make_head(ServerContext &context, uint64_t length);

#endif
