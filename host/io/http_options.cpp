#include "http_options.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "message.h"

// The value may be secret: it isn't shown.
void check_headers(const std::vector<std::string> &headers)
{
    for (const std::string &header : headers) {
        const size_t colon = header.find(':');
        std::string name = header.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char letter) {
            return static_cast<char>(std::tolower(letter));
        });
        const bool f_token =
            !name.empty() && std::all_of(name.begin(), name.end(), [](char letter) {
                return std::isalnum(static_cast<unsigned char>(letter)) != 0 ||
                       std::strchr("!#$%&'*+-.^_`|~", letter) != nullptr;
            });
        if (colon == std::string::npos || !f_token ||
            header.find_first_of("\r\n") != std::string::npos)
            throw BadUsage("--header takes NAME:VALUE");
        for (const char *own : {"range", "if-range", "accept-encoding"}) {
            if (name == own) throw BadUsage("--header can't set what the program sets: " + name);
        }
    }
}
