#include "time_text.h"

#include <fmt/format.h>

namespace {

bool take_number(const char **at, int most_digits, uint64_t *value);

}  // namespace

bool parse_time(const std::string &text, uint32_t *time_ms)
{
    constexpr int HOUR_DIGITS = 4;
    constexpr int MS_DIGITS = 10;
    const char *at = text.c_str();
    uint64_t total = 0;
    if (text.find(':') == std::string::npos) {
        if (!take_number(&at, MS_DIGITS, &total)) return false;
    } else {
        int fields = 0;
        do {
            uint64_t value = 0;
            if (fields++ > 0) ++at;  // the colon
            if (!take_number(&at, fields == 1 ? HOUR_DIGITS : 2, &value)) return false;
            if (fields > 1 && value >= 60) return false;
            total = total * 60 + value;
        } while (*at == ':' && fields < 3);
        total *= 1000;
        if (*at == '.') {
            const char *digits = ++at;
            uint64_t fraction = 0;
            if (!take_number(&at, 3, &fraction)) return false;
            for (auto length = at - digits; length < 3; ++length)
                fraction *= 10;
            total += fraction;
        }
    }
    // A NUL inside the text ends it here, but not there.
    if (at != text.c_str() + text.size() || total > UINT32_MAX) return false;
    *time_ms = static_cast<uint32_t>(total);
    return true;
}

std::string time_text(int64_t time_ms)
{
    const char *sign = time_ms < 0 ? "-" : "";
    const int64_t ms = time_ms < 0 ? -time_ms : time_ms;
    return fmt::format("{}{:02}:{:02}:{:02}.{:03}", sign, ms / 3600000, ms / 60000 % 60,
                       ms / 1000 % 60, ms % 1000);
}

namespace {

// Takes 1 to most_digits decimal digits.
bool take_number(const char **at, int most_digits, uint64_t *value)
{
    int digits = 0;
    for (*value = 0; **at >= '0' && **at <= '9' && digits < most_digits; ++*at, ++digits)
        *value = *value * 10 + static_cast<uint64_t>(**at - '0');
    return digits > 0;
}

}  // namespace
