#include "library_log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/types.h>

#include "message.h"
#include "text.h"

namespace {

constexpr size_t LINES_KEPT = 3;
constexpr size_t LONGEST_LINE = 512;  // the rest is left out

// Most lines say how the file is read, or name what isn't known and may well be there: thousands in
// some films. These words name trouble,
const char *const TROUBLE[] = {"length error",     "DataLen  error", "error FileGet",
                               "error cluster ID", "read error",     "not found",
                               "expected",         "nsupported",     "Couldn't",
                               "COULD NOT",        "Bad frame"};
// but not in a line with one of these, which many files do without.
const char *const ORDINARY[] = {"'ctts'", "'stss'"};

class LibraryLog {
public:
    void take(const char *text, size_t size);
    void explain();

    bool f_shown = false;

private:
    void end_line();

    std::string m_line;                          // that hasn't ended
    std::array<std::string, LINES_KEPT> m_kept;  // the last one last
};

// Never released: what stdio still holds comes to it when the program ends.
LibraryLog *g_log = nullptr;

ssize_t take_text(void * /*cookie*/, const char *text, size_t size)
{
    g_log->take(text, size);
    return static_cast<ssize_t>(size);
}

}  // namespace

void take_library_messages(bool f_shown)
{
    g_log = new LibraryLog;
    g_log->f_shown = f_shown;
    cookie_io_functions_t functions = {};
    functions.write = take_text;
    FILE *const log = fopencookie(nullptr, "w", functions);
    if (log == nullptr) return;  // then they go where descriptor 1 leads
    // In lumps, also on a terminal: a reader that jumps about in its file prints much.
    setvbuf(log, nullptr, _IOFBF, BUFSIZ);
    stdout = log;
}

void explain_failure()
{
    std::fflush(stdout);
    if (g_log != nullptr) g_log->explain();
}

namespace {

void LibraryLog::take(const char *text, size_t size)
{
    while (size > 0) {
        const void *const feed = memchr(text, '\n', size);
        const size_t part =
            feed == nullptr ? size : static_cast<size_t>(static_cast<const char *>(feed) - text);
        m_line.append(text, std::min(part, LONGEST_LINE - m_line.size()));
        if (feed == nullptr) return;
        end_line();
        text += part + 1;
        size -= part + 1;
    }
}

void LibraryLog::end_line()
{
    std::string line;
    line.swap(m_line);
    if (f_shown) {
        std::fputs((printable(line, true) + '\n').c_str(), stderr);
        return;
    }
    const auto has = [&](const char *word) { return line.find(word) != std::string::npos; };
    if (std::none_of(std::begin(TROUBLE), std::end(TROUBLE), has) ||
        std::any_of(std::begin(ORDINARY), std::end(ORDINARY), has) ||
        std::find(m_kept.begin(), m_kept.end(), line) != m_kept.end())
        return;
    std::rotate(m_kept.begin(), m_kept.begin() + 1, m_kept.end());
    m_kept.back() = line;
}

void LibraryLog::explain()
{
    for (std::string &line : m_kept) {
        if (!line.empty()) say("golt: the library says: " + line);
        line.clear();
    }
}

}  // namespace
