#include "conditions.h"

#include <charconv>
#include <ctime>

namespace {

constexpr unsigned STATUS_DONE = 200;
constexpr unsigned STATUS_PARTIAL = 206;
constexpr unsigned STATUS_NOT_MODIFIED = 304;
constexpr unsigned STATUS_PRECONDITION_FAILED = 412;
constexpr unsigned STATUS_RANGE_NOT_SATISFIABLE = 416;

const char *const DATE_FORM = "%a, %d %b %Y %H:%M:%S GMT";
// Of old clients, too.
const char *const READ_FORMS[] = {DATE_FORM, "%a, %d-%b-%y %H:%M:%S GMT", "%a %b %d %H:%M:%S %Y"};

bool names_tag(const std::string &list, const std::string &tag, bool f_weak);
std::optional<int64_t> time_of(const std::string &date);
void take_range(const std::string &range, uint64_t size, Verdict &verdict);
bool take_number(const char *&at, const char *end, uint64_t &number);

}  // namespace

Verdict judge(const Conditions &conditions, const std::string &tag, int64_t modified,
              std::optional<uint64_t> size)
{
    Verdict verdict = {STATUS_DONE, 0, size.value_or(0)};
    const auto is_newer = [&](const std::string &date) {
        const auto time = time_of(date);
        return !time || modified == 0 || modified > *time;
    };
    if (!conditions.if_match.empty()) {
        if (!names_tag(conditions.if_match, tag, false)) return {STATUS_PRECONDITION_FAILED, 0, 0};
    } else if (!conditions.if_unmodified_since.empty() && modified != 0 &&
               time_of(conditions.if_unmodified_since) &&
               is_newer(conditions.if_unmodified_since)) {
        return {STATUS_PRECONDITION_FAILED, 0, 0};
    }
    if (!conditions.if_none_match.empty()) {
        if (names_tag(conditions.if_none_match, tag, true)) return {STATUS_NOT_MODIFIED, 0, 0};
    } else if (!conditions.if_modified_since.empty() && !is_newer(conditions.if_modified_since)) {
        return {STATUS_NOT_MODIFIED, 0, 0};
    }
    if (!size || conditions.range.empty()) return verdict;
    const std::string &same = conditions.if_range;
    const bool f_same =
        same.empty() || (same[0] == '"' ? same == tag : modified != 0 && time_of(same) == modified);
    if (f_same) take_range(conditions.range, *size, verdict);
    return verdict;
}

std::string http_date(int64_t seconds)
{
    const time_t time = static_cast<time_t>(seconds);
    tm parts = {};
    char text[64] = "";
    if (gmtime_r(&time, &parts) != nullptr) strftime(text, sizeof text, DATE_FORM, &parts);
    return text;
}

namespace {

// A list of tags, or "*". Tags that are weak are the same only in the weak comparison.
bool names_tag(const std::string &list, const std::string &tag, bool f_weak)
{
    if (list == "*") return true;
    if (tag.empty()) return false;
    for (size_t at = 0; (at = list.find(tag, at)) != std::string::npos; at += tag.size()) {
        const bool f_is_weak = at >= 2 && list.compare(at - 2, 2, "W/") == 0;
        if (f_weak || !f_is_weak) return true;
    }
    return false;
}

std::optional<int64_t> time_of(const std::string &date)
{
    for (const char *const form : READ_FORMS) {
        tm parts = {};
        const char *const end = strptime(date.c_str(), form, &parts);
        if (end != nullptr && *end == '\0') return timegm(&parts);
    }
    return {};
}

// One range; the whole answer where it is none, or there are several.
void take_range(const std::string &range, uint64_t size, Verdict &verdict)
{
    const std::string unit = "bytes=";
    if (range.compare(0, unit.size(), unit) != 0) return;
    const char *at = range.data() + unit.size();
    const char *const end = range.data() + range.size();
    uint64_t first = 0, last = UINT64_MAX;
    const bool f_first = take_number(at, end, first);
    if (at == end || *at != '-') return;
    ++at;
    const bool f_last = take_number(at, end, last);
    if (at != end || (!f_first && !f_last) || (f_first && last < first)) return;
    if (!f_first) {
        // The last so many bytes.
        first = last < size ? size - last : 0;
        if (last == 0) first = size;
        last = UINT64_MAX;
    }
    if (first >= size) {
        verdict = {STATUS_RANGE_NOT_SATISFIABLE, 0, 0};
        return;
    }
    verdict = {STATUS_PARTIAL, first, last < size ? last - first + 1 : size - first};
}

bool take_number(const char *&at, const char *end, uint64_t &number)
{
    const auto result = std::from_chars(at, end, number);
    if (result.ec != std::errc()) return false;
    at = result.ptr;
    return true;
}

}  // namespace
