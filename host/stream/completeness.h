// Whether all that is in a file was delivered: what should be there comes from the outline, what was
// from the tally. The library ends a stream without telling why.

#ifndef HOST_STREAM_COMPLETENESS_H
#define HOST_STREAM_COMPLETENESS_H

#include <string>

#include "outline.h"
#include "selection.h"
#include "tally.h"

struct Delivery {
    const Outline &outline;
    const Selection &selection;
    const Tally &tally;
    bool f_remote;     ///< the file is on a server: it is asked as little as can be
    bool f_stopped;    ///< before its end, as it was wished
    int64_t start_ms;  ///< what comes before it wasn't wanted
    int64_t end_ms;    ///< nor what comes after it, of a track that got so far
};

/// What of the file is missing in the stream, or damaged; empty when nothing is. A quarter of a second
/// short counts. Not for transport streams.
std::string find_loss(const Delivery &delivery, ByteSource &source);

#endif
