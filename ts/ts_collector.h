// The elementary streams of a transport stream in memory, with all that the checker has to say of it.

#ifndef TS_TS_COLLECTOR_H
#define TS_TS_COLLECTOR_H

#include <string>
#include <vector>

#include "ts_checker.h"

struct TsReport {
    std::vector<std::string> problems;  ///< in the stream's order; a PES packet's where it ends
    std::vector<size_t> pat_packets;    ///< numbers of the packets that hold a PAT, from 0
    std::vector<TsPes> pes;             ///< of the streams in the PMT, in the order of their starts
};

/// All at once, for streams in memory.
TsReport check_ts(const Bytes &stream);

#endif
