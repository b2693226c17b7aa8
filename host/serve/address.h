// The addresses that the server answers at.

#ifndef HOST_SERVE_ADDRESS_H
#define HOST_SERVE_ADDRESS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a request asks for.
struct Address {
    enum Kind {
        PAGE,     ///< NAMES/: of a folder or of a film
        MASTER,   ///< NAMES/index.m3u8
        MEDIA,    ///< NAMES/VERSION/media.m3u8
        SEGMENT,  ///< NAMES/VERSION/NUMBER.ts
        DETAILS,  ///< NAMES/details.json
        STATUS,   ///< status
        METRICS,  ///< metrics
        PART,     ///< .golt/PART: what the pages consist of
    };
    Kind kind = PAGE;
    std::vector<std::string> names;  ///< that lead to the file or folder, decoded
    bool f_slash = true;             ///< false: a page's address without the slash at its end
    std::string version;
    uint64_t number = 0;
    std::string part;
};

/// path: as it came, without the query. Nothing for an address that leads nowhere in any case, such as
/// one with a part that is empty.
std::optional<Address> parse_address(const std::string &path);

/// The path below a root that names lead to, from the first of them on; "." for none. Nothing where one begins with a
/// dot: such files aren't served, and there is no way up.
std::optional<std::string> path_below(const std::vector<std::string> &names, size_t first);

/// A part of an address: what isn't a letter, a digit or one of -._~ is encoded.
std::string encoded(const std::string &name);
/// The address of the page of what is there, with a slash at each end.
std::string page_address(const std::vector<std::string> &names);
#endif
