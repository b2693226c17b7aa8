#include "time_text.h"

#include <cstring>

#include <fmt/format.h>

namespace {

constexpr uint64_t MS_PER_SECOND = 1000;

struct Parser {
    const char *at;

    bool take_number(int most_digits, uint64_t *value);
    bool take_fraction(uint64_t unit_ms, uint64_t *ms);
};

bool parse_clock(Parser &in, uint64_t *ms);
bool parse_with_unit(Parser &in, uint64_t *ms);

}  // namespace

bool parse_time(const std::string &text, uint32_t *time_ms)
{
    Parser in = {text.c_str()};
    uint64_t ms = 0;
    const bool f_clock = text.find(':') != std::string::npos;
    if (!(f_clock ? parse_clock(in, &ms) : parse_with_unit(in, &ms))) return false;
    // A NUL inside the text ends it here, but not there.
    if (in.at != text.c_str() + text.size() || ms > UINT32_MAX) return false;
    *time_ms = static_cast<uint32_t>(ms);
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

// hh:mm:ss.mmm, the hours and the fraction perhaps missing
bool parse_clock(Parser &in, uint64_t *ms)
{
    constexpr int HOUR_DIGITS = 4;
    uint64_t seconds = 0;
    int fields = 0;
    do {
        uint64_t value = 0;
        if (fields++ > 0) ++in.at;  // the colon
        if (!in.take_number(fields == 1 ? HOUR_DIGITS : 2, &value)) return false;
        if (fields > 1 && value >= 60) return false;
        seconds = seconds * 60 + value;
    } while (*in.at == ':' && fields < 3);
    *ms = seconds * MS_PER_SECOND;
    return in.take_fraction(MS_PER_SECOND, ms);
}

bool parse_with_unit(Parser &in, uint64_t *ms)
{
    static constexpr struct {
        const char *name;
        uint64_t ms;
    } UNITS[] = {{"", MS_PER_SECOND},
                 {"s", MS_PER_SECOND},
                 {"ms", 1},
                 {"m", 60 * MS_PER_SECOND},
                 {"h", 3600 * MS_PER_SECOND}};
    constexpr int DIGITS = 10;
    const char *const unit = in.at + strspn(in.at, "0123456789.");
    for (const auto &row : UNITS) {
        uint64_t value = 0;
        if (strcmp(unit, row.name) != 0) continue;
        if (!in.take_number(DIGITS, &value)) return false;
        *ms = value * row.ms;
        if (!in.take_fraction(row.ms, ms) || in.at != unit) return false;
        in.at += strlen(row.name);
        return true;
    }
    return false;
}

// Takes 1 to most_digits decimal digits.
bool Parser::take_number(int most_digits, uint64_t *value)
{
    int digits = 0;
    for (*value = 0; *at >= '0' && *at <= '9' && digits < most_digits; ++at, ++digits)
        *value = *value * 10 + static_cast<uint64_t>(*at - '0');
    return digits > 0;
}

// Adds a point and decimal digits of the unit, if there are any. What is below a millisecond is left
// out.
bool Parser::take_fraction(uint64_t unit_ms, uint64_t *ms)
{
    constexpr int DIGITS = 9;
    if (*at != '.') return true;
    const char *const first = ++at;
    uint64_t fraction = 0, scale = 1;
    if (!take_number(DIGITS, &fraction)) return false;
    for (auto length = at - first; length > 0; --length)
        scale *= 10;
    *ms += fraction * unit_ms / scale;
    return true;
}

}  // namespace
