#include "http_source.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include <poll.h>

#include <fmt/format.h>

#include "http_transfer.h"
#include "interrupt.h"
#include "message.h"
#include "text.h"

namespace {

// What has come and may be asked for again: the library begins anew at the start of a block of 64
// KiB, and reads tracks by turns that lie a little apart.
constexpr uint64_t WINDOW_SIZE = 1024 * 1024;
// Of it, ahead of the position. More waits in the network.
constexpr uint64_t AHEAD_SIZE = WINDOW_SIZE / 2;
// A gap that is read through: a new request takes as long as many bytes do.
constexpr uint64_t GAP_SIZE = 256 * 1024;

// The library asks again at negative results and at short ones, 5000 times for a block of 64 KiB
// that it must have, and then takes what it got for all there is. So a call waits for a good deal
// of bytes, the longer the less came before, up to LONGEST_WAIT_MS; that makes 2500 seconds of
// patience. A server that is slower than LEAST_RATE is given up before: the block takes 655 seconds
// at that rate, and failures less than 8 times the longest time-out, which is 120 seconds.
constexpr uint64_t GOOD_DEAL = 4096;
constexpr int SHORTEST_WAIT_MS = 5;
constexpr int LONGEST_WAIT_MS = 500;
constexpr uint64_t LEAST_RATE = 100;  // bytes in a second

// Requests that fail in a row, each with less than PROGRESS_SIZE bytes to its credit.
constexpr int MOST_FAILURES = 4;
constexpr uint64_t PROGRESS_SIZE = 64 * 1024;
constexpr int FIRST_PAUSE_MS = 250;  // before a request is made again; doubles each time

// A server that serves no ranges sends the file from its start again where the library goes back.
constexpr int MOST_RESTARTS = 4;

using Clock = std::chrono::steady_clock;

int ms_since(Clock::time_point start);

class HttpSource final : public Source, private HttpReceiver {
public:
    HttpSource(const std::string &url, const HttpOptions &options);

    /// Waits a little where nothing has come; negative when nothing came all the same. An error
    /// reads as the end, and so does a signal to stop.
    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;
    uint64_t size() const override { return m_total.value_or(0); }
    bool is_seekable() const override { return m_f_ranges; }
    std::string version() const override { return m_tag + m_modified; }

private:
    bool on_answer(const HttpAnswer &answer) override;
    bool on_bytes(const uint8_t *bytes, size_t size) override;
    void on_nothing(std::optional<uint64_t> total) override;

    uint64_t position_here() const { return static_cast<uint64_t>(m_position); }
    uint64_t held() const;
    bool is_at_end() const;
    int take(uint8_t *buffer, uint64_t size);
    bool keep_request_going();
    void take_end();
    bool start_request();
    bool look_at_failure(const std::string &reason, bool f_again);
    void wait(int ms);
    void give_up(const std::string &reason);

    const int m_timeout_ms;
    std::vector<uint8_t> m_window;
    uint64_t m_begin = 0;  // offsets in the file of what the window holds
    uint64_t m_end = 0;
    uint64_t m_reached = 0;  // that was ever seen
    bool m_f_answer = false;
    bool m_f_ranges = true;
    std::optional<uint64_t> m_total;
    std::optional<uint64_t> m_nothing_from;  // an offset from which on there is nothing
    std::string m_tag, m_modified;           // of the file's version, as far as stated
    bool m_f_framed = true;                  // the present answer states where it ends
    int m_restarts = 0;
    int m_failures = 0;
    uint64_t m_request_bytes = 0;  // that the present request has brought
    Clock::time_point m_not_before;
    int m_wait_ms = SHORTEST_WAIT_MS;
    // Time waited and what came in it, for the rate.
    int m_waited_ms = 0;
    uint64_t m_waited_bytes = 0;
    std::unique_ptr<HttpTransfer> m_transfer;  // last: it calls the object
};

}  // namespace

std::unique_ptr<Source> open_http_source(const std::string &url, const HttpOptions &options)
{
    return std::make_unique<HttpSource>(url, options);
}

namespace {

HttpSource::HttpSource(const std::string &url, const HttpOptions &options)
    : Source(without_passwords(url))
    , m_timeout_ms(static_cast<int>(options.timeout_s * 1000))
    , m_window(WINDOW_SIZE)
    , m_transfer(make_http_transfer(url, options, *this))
{
    m_transfer->start(0, m_tag);
    while (!m_f_answer && m_transfer->state() == HttpTransfer::RUNNING && m_fault.empty()) {
        if (stop_signal() != 0)
            throw NotDone(m_path, fmt::format("stopped by {}", stop_signal_name()));
        wait(LONGEST_WAIT_MS);
        if (!m_f_answer && m_waited_ms >= m_timeout_ms)
            throw NotDone(m_path, "no answer within " + counted(options.timeout_s, "second"));
    }
    // A file that can't be had from the start isn't waited for.
    if (!m_fault.empty()) throw NotDone(m_path, m_fault);
    if (!m_f_answer && m_transfer->state() != HttpTransfer::DONE)
        throw NotDone(m_path, m_transfer->reason());
    if (m_total.value_or(0) == 0 && m_transfer->state() == HttpTransfer::DONE && m_end == 0)
        throw NotDone(m_path, "the file is empty");
}

int HttpSource::read(uint8_t *buffer, int size)
{
    if (size <= 0) return 0;
    const uint64_t wanted = std::min(static_cast<uint64_t>(size), GOOD_DEAL);
    const Clock::time_point start = Clock::now();
    while (held() < wanted && stop_signal() == 0 && keep_request_going()) {
        const int left_ms = m_wait_ms - ms_since(start);
        // The library counts what brings nothing towards the end of a file of unknown size.
        const bool f_may_end = held() > 0 || m_total.has_value();
        if (left_ms <= 0 && f_may_end) break;
        wait(left_ms > 0 ? left_ms : LONGEST_WAIT_MS);
    }
    if (stop_signal() != 0) return 0;
    const uint64_t got = held();
    m_wait_ms = got >= wanted ? SHORTEST_WAIT_MS : std::min(2 * m_wait_ms, LONGEST_WAIT_MS);
    if (got == 0) return m_fault.empty() && !is_at_end() ? -1 : 0;
    return take(buffer, std::min(got, static_cast<uint64_t>(size)));
}

int64_t HttpSource::seek(int64_t offset, int whence)
{
    if (offset < 0 || whence != SEEK_SET) return -1;
    m_position = offset;
    return 0;
}

// Bytes that can be had at once.
uint64_t HttpSource::held() const
{
    const uint64_t at = position_here();
    return at >= m_begin && at < m_end ? m_end - at : 0;
}

bool HttpSource::is_at_end() const
{
    const uint64_t at = position_here();
    return (m_total && at >= *m_total) || (m_nothing_from && at >= *m_nothing_from);
}

int HttpSource::take(uint8_t *buffer, uint64_t size)
{
    const uint64_t from = position_here() % WINDOW_SIZE;
    const uint64_t first = std::min(size, WINDOW_SIZE - from);
    memcpy(buffer, m_window.data() + from, static_cast<size_t>(first));
    memcpy(buffer + first, m_window.data(), static_cast<size_t>(size - first));
    m_position += static_cast<int64_t>(size);
    m_transfer->resume();
    return static_cast<int>(size);
}

// Sees to it that what the position needs is on its way. False when nothing more comes.
bool HttpSource::keep_request_going()
{
    if (!m_fault.empty() || is_at_end()) return false;
    const uint64_t at = position_here();
    // Without ranges everything up to the position has to come anyway.
    const bool f_ahead = at >= m_begin && (at <= m_end + GAP_SIZE || !m_f_ranges);
    switch (m_transfer->state()) {
    case HttpTransfer::RUNNING:
        m_transfer->resume();  // the position may have left what it paused for
        return f_ahead || start_request();
    case HttpTransfer::FAILED:
    case HttpTransfer::REFUSED:
        return look_at_failure(m_transfer->reason(), m_transfer->state() == HttpTransfer::FAILED);
    case HttpTransfer::DONE:
        if (!m_total && !m_f_ranges) take_end();
        if (is_at_end()) return false;
        // A server may send less than was requested, but not for ever.
        if (f_ahead && m_request_bytes == 0)
            return look_at_failure("the server sends nothing", true);
        return start_request();
    default: return start_request();
    }
}

// All of the file has come. If an answer ends with the connection, it may be incomplete.
void HttpSource::take_end()
{
    m_total = m_end;
    if (!m_f_framed)
        m_doubt = "the server stated neither its size nor its end; whether it is whole isn't known";
}

bool HttpSource::start_request()
{
    if (Clock::now() < m_not_before) return true;  // wait() waits
    const uint64_t at = position_here();
    const bool f_ahead = at >= m_begin && at <= m_end + GAP_SIZE;
    if (!m_f_ranges && ++m_restarts > MOST_RESTARTS) {
        give_up("the server serves no ranges, and the file has to be read out of order");
        return false;
    }
    m_request_bytes = 0;
    const uint64_t first = !m_f_ranges ? 0 : f_ahead ? m_end : at;
    if (first != m_end) m_begin = m_end = first;
    m_transfer->start(first, m_tag);
    return true;
}

// False when there is no sense in another try.
bool HttpSource::look_at_failure(const std::string &reason, bool f_again)
{
    m_transfer->stop();
    m_failures = m_request_bytes >= PROGRESS_SIZE ? 1 : m_failures + 1;
    if (!f_again || m_failures >= MOST_FAILURES) {
        give_up(f_again ? reason + "; gave up after " + std::to_string(m_failures) + " tries"
                        : reason);
        return false;
    }
    m_not_before = Clock::now() + std::chrono::milliseconds(FIRST_PAUSE_MS << (m_failures - 1));
    return true;
}

// Waits until something comes, ms at most. Only here the server has to be fast enough.
void HttpSource::wait(int ms)
{
    const Clock::time_point start = Clock::now();
    if (m_transfer->state() != HttpTransfer::RUNNING) {
        const auto pause =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_not_before - start).count() + 1;
        poll(nullptr, 0, static_cast<int>(std::clamp<int64_t>(pause, 0, ms)));
        return;
    }
    const uint64_t bytes_before = m_request_bytes;
    m_transfer->work(ms);
    m_waited_ms += ms_since(start);
    m_waited_bytes += m_request_bytes - bytes_before;
    if (m_waited_ms < m_timeout_ms || !m_f_answer) return;
    const bool f_slow = m_waited_bytes < LEAST_RATE * static_cast<uint64_t>(m_timeout_ms) / 1000;
    m_waited_ms = 0;
    m_waited_bytes = 0;
    // A server may be slow in answers that are whole, one after another.
    const bool f_more = m_transfer->state() == HttpTransfer::RUNNING ||
                        (m_transfer->state() == HttpTransfer::DONE && m_f_ranges && !is_at_end());
    if (f_slow && f_more)
        look_at_failure("the server sent next to nothing for " +
                            counted(static_cast<uint64_t>(m_timeout_ms) / 1000, "second"),
                        true);
}

void HttpSource::give_up(const std::string &reason)
{
    m_transfer->stop();
    m_fault = m_f_answer ? fmt::format("{} at offset {}", reason, m_end) : reason;
}

bool HttpSource::on_answer(const HttpAnswer &answer)
{
    // A strong tag that is gone is another one.
    const bool f_other_version = m_tag.empty() ? !m_modified.empty() && !answer.modified.empty() &&
                                                     answer.modified != m_modified
                                               : answer.tag != m_tag;
    const bool f_other_size = answer.total && *answer.total != m_total.value_or(*answer.total);
    if (f_other_version || f_other_size || answer.total.value_or(m_reached) < m_reached) {
        m_fault = "the file changed while it was read";
        return false;
    }
    m_f_answer = true;
    m_f_ranges = answer.f_range;
    m_f_framed = answer.f_framed;
    m_tag = answer.tag;
    if (!answer.modified.empty()) m_modified = answer.modified;
    if (answer.total) m_total = answer.total;
    if (answer.first != m_end) m_begin = m_end = answer.first;
    return true;
}

bool HttpSource::on_bytes(const uint8_t *bytes, size_t size)
{
    const uint64_t at = position_here();
    if (at < m_end && m_end - at + size > AHEAD_SIZE) return false;
    for (size_t done = 0; done < size;) {
        const uint64_t to = m_end % WINDOW_SIZE;
        const auto part = static_cast<size_t>(std::min<uint64_t>(size - done, WINDOW_SIZE - to));
        memcpy(m_window.data() + to, bytes + done, part);
        m_end += part;
        done += part;
    }
    if (m_end - m_begin > WINDOW_SIZE) m_begin = m_end - WINDOW_SIZE;
    m_request_bytes += size;
    m_reached = std::max(m_reached, m_end);
    return true;
}

void HttpSource::on_nothing(std::optional<uint64_t> total)
{
    // The request was for what follows the window.
    if (!m_nothing_from || m_end < *m_nothing_from) m_nothing_from = m_end;
    if (!m_total && total) m_total = total;
    if (!m_total && m_end > m_begin) m_total = m_end;
    if (!m_total) return;
    if ((total && *total != *m_total) || m_end < *m_total)
        m_fault = fmt::format("the server has announced {}, and has nothing from offset {} on",
                              counted(*m_total, "byte"), m_end);
}

int ms_since(Clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace
