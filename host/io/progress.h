// One line on the terminal that shows how far the work has come.

#ifndef HOST_IO_PROGRESS_H
#define HOST_IO_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
public:
    explicit Progress(bool f_shown);
    ~Progress() { clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    /// Whether to call show now. Looks at the clock once in a MiB and is otherwise one comparison.
    bool is_due(uint64_t bytes);
    /// part: 0 to 1 of the work is done. place: where the work has come to, in words.
    void show(uint64_t bytes, double part, const std::string &place);

    /// Takes the line away.
    void clear();

    double seconds() const;  ///< since the object was made

private:
    using Clock = std::chrono::steady_clock;

    bool m_f_shown;
    bool m_f_line = false;  // the line is on the terminal
    Clock::time_point m_start;
    Clock::time_point m_next_show;
    uint64_t m_next_look = 0;  // bytes
};

/// "12.3 MB/s" after the text before; nothing at all for a time too short to be measured.
std::string rate_text(uint64_t bytes, double seconds, const char *before);

/// "12.3x real time" of a stream of this duration, after the text before; nothing at all where it
/// can't be measured.
std::string speed_text(int64_t span_ms, double seconds, const char *before);

#endif
