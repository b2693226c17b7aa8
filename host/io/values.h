// Values of options, as they are written on the command line. Each returns false for what is none.

#ifndef HOST_IO_VALUES_H
#define HOST_IO_VALUES_H

#include <cstdint>
#include <string>

/// 1 or more
bool parse_count(const std::string &text, uint64_t *count);
/// 1 to 120
bool parse_timeout(const std::string &text, uint32_t *seconds);
/// 2 to 3600
bool parse_idle(const std::string &text, uint32_t *seconds);
/// 0 to 65535
bool parse_port(const std::string &text, uint16_t *port);
/// Bytes, or a number with K, M or G: 1 MiB to 1 TiB.
bool parse_size(const std::string &text, uint64_t *size);

#endif
