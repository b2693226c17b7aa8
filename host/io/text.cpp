#include "text.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

#include <fmt/format.h>

namespace {

/// A letter of UTF-8. size: of its bytes; 0 where they are none.
struct Letter {
    uint32_t code;
    size_t size;
};

Letter letter_at(const std::string &text, size_t at);
bool is_shown(uint32_t code);
size_t end_of_credentials(const std::string &text, size_t begin);

}  // namespace

std::string printable(const std::string &text, bool f_lines)
{
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const Letter letter = letter_at(text, at);
        const size_t size = std::max<size_t>(letter.size, 1);
        const bool f_line = f_lines && (text[at] == '\n' || text[at] == '\t');
        if (f_line || (letter.size != 0 && is_shown(letter.code)))
            out.append(text, at, size);
        else if (letter.code > 0xFFFF)  // in halves, as JSON has it
            out += fmt::format("\\u{:04X}\\u{:04X}", 0xD7C0 + (letter.code >> 10),
                               0xDC00 + (letter.code & 0x3FF));
        else if (letter.size > 1)
            out += fmt::format("\\u{:04X}", letter.code);
        else
            out += fmt::format("\\x{:02X}", static_cast<unsigned char>(text[at]));
        at += size;
    }
    return out;
}

std::string xml_text(const std::string &text)
{
    std::string out;
    for (const char letter : printable(text)) {
        switch (letter) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += letter;
        }
    }
    return out;
}

std::string counted(uint64_t count, const std::string &thing)
{
    return fmt::format("{} {}{}", count, thing, count == 1 ? "" : "s");
}

bool is_url(const std::string &path)
{
    for (const std::string scheme : {"http://", "https://"}) {
        const bool f_same =
            path.size() >= scheme.size() &&
            std::equal(scheme.begin(), scheme.end(), path.begin(), [](int a, int b) {
                return a == std::tolower(static_cast<unsigned char>(b));
            });
        if (f_same) return true;
    }
    return false;
}

std::string without_passwords(const std::string &text)
{
    const std::string scheme_end = "://";
    std::string out;
    size_t done = 0;
    for (size_t at = 0; (at = text.find(scheme_end, at)) != std::string::npos;) {
        at += scheme_end.size();
        const size_t end = end_of_credentials(text, at);
        const size_t colon = std::min(text.find(':', at), text.size());
        if (end == at || colon >= end) continue;
        out += text.substr(done, colon + 1 - done) + "***";
        done = at = end;
    }
    return out + text.substr(done);
}

namespace {

// RFC 3629: the shortest form alone, up to U+10FFFF, without the halves of UTF-16.
Letter letter_at(const std::string &text, size_t at)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const uint8_t first = byte(at);
    if (first < 0x80) return {first, 1};
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < size) return {0, 0};
    uint32_t code = first & (0xFFU >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if (byte(at + i) >> 6 != 2) return {0, 0};
        code = code << 6 | (byte(at + i) & 0x3FU);
    }
    constexpr uint32_t LEAST[] = {0x80, 0x800, 0x10000};
    if (code < LEAST[size - 2] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return {0, 0};
    return {code, size};
}

// Not controls, and not what Unicode has for the direction of writing, as separators of lines, or
// for nothing at all.
bool is_shown(uint32_t code)
{
    if (code < 0x20 || (code >= 0x7F && code < 0xA0)) return false;
    const bool f_direction = code == 0x061C || code == 0x200E || code == 0x200F ||
                             (code >= 0x202A && code <= 0x202E) ||
                             (code >= 0x2066 && code <= 0x2069);
    const bool f_separator = code == 0x2028 || code == 0x2029 || code == 0xFEFF;
    return !f_direction && !f_separator && (code & 0xFFFE) != 0xFFFE;
}

// Where the host begins in a URL, of which begin is the place after "://"; begin itself where there
// is nothing before the host.
size_t end_of_credentials(const std::string &text, size_t begin)
{
    const size_t blank = std::min(text.find_first_of(" \t\r\n", begin), text.size());
    const size_t slash = std::min(text.find_first_of("/?#", begin), blank);
    const auto last_at = [&](size_t end) {
        const size_t at = text.substr(begin, end - begin).rfind('@');
        return at == std::string::npos ? begin : begin + at;
    };
    if (last_at(slash) != begin) return last_at(slash);
    // A password with a slash in it is a mistake: what looks like a port is its beginning.
    const size_t colon = text.find(':', begin);
    const bool f_port = colon >= slash || std::all_of(text.begin() + static_cast<long>(colon) + 1,
                                                      text.begin() + static_cast<long>(slash),
                                                      [](unsigned char c) { return isdigit(c); });
    return f_port ? begin : last_at(blank);
}

}  // namespace
