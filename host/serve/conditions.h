// Conditional requests and ranges (RFC 9110, sections 13 and 14).

#ifndef HOST_SERVE_CONDITIONS_H
#define HOST_SERVE_CONDITIONS_H

#include <cstdint>
#include <optional>
#include <string>

/// The fields of a request that its answer depends on; empty: it has none such.
struct Conditions {
    std::string if_match, if_none_match, if_modified_since, if_unmodified_since, if_range, range;
};

/// Which form of an answer fits.
struct Verdict {
    unsigned status = 200;  ///< 200, 206, 304, 412 or 416
    uint64_t first = 0;     ///< of the bytes that are to be sent
    uint64_t size = 0;
};

/// tag: with its quotes; modified: seconds since 1970; empty and 0 where there is none. size: nothing
/// where it isn't known yet: then ranges aren't looked at.
Verdict judge(const Conditions &conditions, const std::string &tag, int64_t modified,
              std::optional<uint64_t> size);

/// "Wed, 25 Nov 2026 16:00:00 GMT"
std::string http_date(int64_t seconds);

#endif
