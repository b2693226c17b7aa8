// M2TS: its packets are a transport stream already. They are copied without their stamps.

#ifndef HOST_HLS_M2TS_H
#define HOST_HLS_M2TS_H

#include "film.h"

/// As make_segment.
std::string copy_m2ts_segment(Source &source, const Film &film, size_t number,
                              std::vector<uint8_t> &segment);

#endif
