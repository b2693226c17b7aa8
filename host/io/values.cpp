#include "values.h"

#include <charconv>

// CLI11's own conversion takes "-1" for a large number.
bool parse_count(const std::string &text, uint64_t *count)
{
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *count);
    return result.ec == std::errc() && result.ptr == end && *count != 0;
}

bool parse_idle(const std::string &text, uint32_t *seconds)
{
    // The server looks once a second.
    constexpr uint64_t SHORTEST = 2, LONGEST = 3600;
    uint64_t count = 0;
    if (!parse_count(text, &count) || count < SHORTEST || count > LONGEST) return false;
    *seconds = static_cast<uint32_t>(count);
    return true;
}

bool parse_timeout(const std::string &text, uint32_t *seconds)
{
    // A source relies on the limit.
    constexpr uint64_t LONGEST = 120;
    uint64_t count = 0;
    if (!parse_count(text, &count) || count > LONGEST) return false;
    *seconds = static_cast<uint32_t>(count);
    return true;
}

bool parse_port(const std::string &text, uint16_t *port)
{
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *port);
    return result.ec == std::errc() && result.ptr == end;
}

bool parse_size(const std::string &text, uint64_t *size)
{
    constexpr uint64_t LEAST = 1024 * 1024, MOST = LEAST << 20;
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *size);
    if (result.ec != std::errc() || *size > MOST) return false;
    const std::string unit(result.ptr, end);
    const size_t power = unit.empty() ? 0 : std::string("KMG").find(unit) + 1;
    if (unit.size() > 1 || power > 3) return false;
    *size <<= 10 * power;
    return *size >= LEAST && *size <= MOST;
}
