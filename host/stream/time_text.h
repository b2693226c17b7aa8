// Times as people write and read them.

#ifndef HOST_STREAM_TIME_TEXT_H
#define HOST_STREAM_TIME_TEXT_H

#include <cstdint>
#include <string>

/// Reads seconds ("90.5"), a number with a unit of ms, s, m or h ("1500ms"), or a time of the form
/// hh:mm:ss.mmm, of which the hours and the fraction may be missing ("1:30.5"). False for anything
/// else and above 32 bits of milliseconds.
bool parse_time(const std::string &text, uint32_t *time_ms);

/// "hh:mm:ss.mmm"
std::string time_text(int64_t time_ms);

#endif
