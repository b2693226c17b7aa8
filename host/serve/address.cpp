#include "address.h"

#include <algorithm>
#include <charconv>

namespace {

// Longer ones lead nowhere, PATH_MAX being 4096.
constexpr size_t LONGEST_PATH = 4000;
constexpr size_t VERSION_SIZE = 16;

std::optional<std::string> decoded(const std::string &text);
int digit_of(char letter);
void take_file_name(Address &address);
bool is_version(const std::string &name);

}  // namespace

std::optional<Address> parse_address(const std::string &path)
{
    if (path.empty() || path[0] != '/') return {};
    Address address;
    if (path == "/status" || path == "/metrics") {
        address.kind = path == "/status" ? Address::STATUS : Address::METRICS;
        return address;
    }
    const std::string parts = "/.golt/";  // no file is served below a name with a dot
    if (path.compare(0, parts.size(), parts) == 0) {
        address.kind = Address::PART;
        address.part = path.substr(parts.size());
        return address;
    }
    size_t size = 0;
    for (size_t at = 1; at < path.size();) {
        const size_t slash = std::min(path.find('/', at), path.size());
        auto name = decoded(path.substr(at, slash - at));
        if (!name || name->empty() || (size += name->size() + 1) > LONGEST_PATH) return {};
        address.names.push_back(std::move(*name));
        at = slash + 1;
    }
    address.f_slash = path.back() == '/';
    if (!address.f_slash) take_file_name(address);
    return address;
}

std::optional<std::string> path_below(const std::vector<std::string> &names, size_t first)
{
    std::string path;
    for (size_t i = first; i < names.size(); ++i) {
        if (names[i][0] == '.') return {};
        path += (path.empty() ? "" : "/") + names[i];
    }
    return path.empty() ? "." : path;
}

std::string encoded(const std::string &name)
{
    static const char DIGITS[] = "0123456789ABCDEF";
    std::string text;
    for (const char letter : name) {
        const bool f_plain = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
                             (letter >= '0' && letter <= '9') || letter == '-' || letter == '.' ||
                             letter == '_' || letter == '~';
        if (f_plain) {
            text += letter;
            continue;
        }
        const auto byte = static_cast<unsigned char>(letter);
        text += {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}

std::string page_address(const std::vector<std::string> &names)
{
    std::string address = "/";
    for (const std::string &name : names)
        address += encoded(name) + "/";
    return address;
}

namespace {

// A slash or a zero byte within a name can't be meant: no file has such a name.
std::optional<std::string> decoded(const std::string &text)
{
    std::string name;
    for (size_t at = 0; at < text.size(); ++at) {
        char letter = text[at];
        if (letter == '%') {
            if (text.size() - at < 3) return {};
            const int high = digit_of(text[at + 1]), low = digit_of(text[at + 2]);
            if (high < 0 || low < 0) return {};
            letter = static_cast<char>(high * 16 + low);
            at += 2;
        }
        if (letter == '/' || letter == '\0') return {};
        name += letter;
    }
    return name;
}

int digit_of(char letter)
{
    if (letter >= '0' && letter <= '9') return letter - '0';
    if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
    if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
    return -1;
}

// What the server makes of a film has the address of a file in a folder with the film's name.
void take_file_name(Address &address)
{
    std::vector<std::string> &names = address.names;
    const std::string last = names.back();
    if (last == "index.m3u8" || last == "details.json") {
        address.kind = last == "index.m3u8" ? Address::MASTER : Address::DETAILS;
        names.pop_back();
        return;
    }
    if (names.size() < 2 || !is_version(names[names.size() - 2])) return;
    const char *const end = last.data() + last.size();
    uint64_t value = 0;
    const auto number = std::from_chars(last.data(), end, value);
    // Each segment has one address: 1, not 01.
    const bool f_segment = number.ec == std::errc() && std::string(number.ptr) == ".ts" &&
                           (last[0] != '0' || last == "0.ts");
    if (!f_segment && last != "media.m3u8") return;
    address.kind = f_segment ? Address::SEGMENT : Address::MEDIA;
    if (f_segment) address.number = value;
    address.version = names[names.size() - 2];
    names.resize(names.size() - 2);
}

bool is_version(const std::string &name)
{
    return name.size() == VERSION_SIZE && name.find_first_not_of("0123456789abcdef") == name.npos;
}

}  // namespace
