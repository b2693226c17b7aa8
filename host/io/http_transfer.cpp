#include "http_transfer.h"

#include "message.h"

#if GOLT_HAS_CURL

#include <algorithm>
#include <cctype>
#include <charconv>
#include <new>

#include <fmt/format.h>

#include "curl_library.h"

namespace {

constexpr long MOST_REDIRECTS = 10;
constexpr long STATUS_PARTIAL = 206;
constexpr long STATUS_RANGE_BEHIND_END = 416;

/// Through libcurl's multi interface, which waits only where it is told to.
class CurlTransfer final : public HttpTransfer {
public:
    CurlTransfer(const std::string &url, uint32_t connect_s, HttpReceiver &receiver);
    ~CurlTransfer() override;
    CurlTransfer(const CurlTransfer &) = delete;
    CurlTransfer &operator=(const CurlTransfer &) = delete;

    void start(uint64_t offset) override;
    void stop() override;
    void resume() override;
    void work(int wait_ms) override;
    State state() const override { return m_state; }
    const std::string &reason() const override { return m_reason; }

private:
    static size_t take_header(char *text, size_t one, size_t size, void *transfer);
    static size_t take_bytes(char *bytes, size_t one, size_t size, void *transfer);

    template <typename Value> void set(CURLoption option, Value value)
    {
        // One that an older library doesn't know is one that it doesn't need.
        const CURLcode code = m_curl.easy_setopt(m_easy, option, value);
        if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    }
    long status() const;
    void take_header_line(const std::string &line);
    bool take_answer();
    void end(CURLcode code);

    const CurlLibrary &m_curl;
    HttpReceiver &m_receiver;
    CURLM *m_multi;
    CURL *m_easy;
    char m_error[CURL_ERROR_SIZE] = {};
    State m_state = IDLE;
    std::string m_reason;

    // Of the present request
    uint64_t m_offset = 0;
    std::string m_status_line;
    std::string m_content_range;
    HttpAnswer m_answer;
    bool m_f_answer = false;  // it has been passed on
    bool m_f_paused = false;
};

bool read_content_range(const std::string &text, HttpAnswer &answer);
std::string trimmed(const std::string &text);

}  // namespace

std::unique_ptr<HttpTransfer> make_http_transfer(const std::string &url, uint32_t connect_s,
                                                 HttpReceiver &receiver)
{
    return std::make_unique<CurlTransfer>(url, connect_s, receiver);
}

namespace {

CurlTransfer::CurlTransfer(const std::string &url, uint32_t connect_s, HttpReceiver &receiver)
    : m_curl(CurlLibrary::get())
    , m_receiver(receiver)
    , m_multi(m_curl.multi_init())
    , m_easy(m_curl.easy_init())
{
    if (m_multi == nullptr || m_easy == nullptr) {
        if (m_easy != nullptr) m_curl.easy_cleanup(m_easy);
        if (m_multi != nullptr) m_curl.multi_cleanup(m_multi);
        throw std::bad_alloc();
    }
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_USERAGENT, "golt");
#if LIBCURL_VERSION_NUM >= 0x075500
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#endif
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, MOST_REDIRECTS);
    set(CURLOPT_FAILONERROR, 1L);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(connect_s));
    set(CURLOPT_ERRORBUFFER, m_error);
    set(CURLOPT_HEADERFUNCTION, &CurlTransfer::take_header);
    set(CURLOPT_HEADERDATA, static_cast<void *>(this));
    set(CURLOPT_WRITEFUNCTION, &CurlTransfer::take_bytes);
    set(CURLOPT_WRITEDATA, static_cast<void *>(this));
}

CurlTransfer::~CurlTransfer()
{
    stop();
    m_curl.easy_cleanup(m_easy);
    m_curl.multi_cleanup(m_multi);
}

void CurlTransfer::start(uint64_t offset)
{
    stop();
    m_offset = offset;
    m_status_line.clear();
    m_content_range.clear();
    m_answer = {};
    m_f_answer = false;
    m_error[0] = '\0';
    m_reason.clear();
    set(CURLOPT_RANGE, fmt::format("{}-", offset).c_str());
    m_f_paused = false;
    m_state = RUNNING;
    if (m_curl.multi_add_handle(m_multi, m_easy) != CURLM_OK) throw std::bad_alloc();
}

void CurlTransfer::stop()
{
    if (m_state == RUNNING) m_curl.multi_remove_handle(m_multi, m_easy);
    m_state = IDLE;
}

void CurlTransfer::resume()
{
    if (m_state != RUNNING || !m_f_paused) return;
    m_f_paused = false;
    m_curl.easy_pause(m_easy, CURLPAUSE_CONT);
}

void CurlTransfer::work(int wait_ms)
{
    if (m_state != RUNNING) return;
    int running = 0;
    m_curl.multi_perform(m_multi, &running);
    if (running != 0 && wait_ms > 0) {
        m_curl.multi_poll(m_multi, nullptr, 0, wait_ms, nullptr);
        m_curl.multi_perform(m_multi, &running);
    }
    int left = 0;
    while (const CURLMsg *message = m_curl.multi_info_read(m_multi, &left)) {
        if (message->msg == CURLMSG_DONE) end(message->data.result);
        if (m_state != RUNNING) break;
    }
}

void CurlTransfer::end(CURLcode code)
{
    // An answer without a byte, such as an empty file's.
    if (code == CURLE_OK && !m_f_answer && !take_answer()) code = CURLE_WRITE_ERROR;
    m_curl.multi_remove_handle(m_multi, m_easy);
    const long code_of_server = status();
    const bool f_refused = code == CURLE_HTTP_RETURNED_ERROR;
    // There may be nothing behind the offset.
    if (code == CURLE_OK || (f_refused && code_of_server == STATUS_RANGE_BEHIND_END)) {
        m_state = DONE;
    } else if (f_refused) {
        m_reason = "the server answers " + m_status_line;
        m_state = code_of_server >= 500 || code_of_server == 408 || code_of_server == 429 ? FAILED
                                                                                          : REFUSED;
    } else {
        if (m_reason.empty())
            m_reason = m_error[0] != '\0' ? trimmed(m_error) : m_curl.easy_strerror(code);
        m_state = code == CURLE_WRITE_ERROR || code == CURLE_TOO_MANY_REDIRECTS ||
                          code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_URL_MALFORMAT ||
                          code == CURLE_PEER_FAILED_VERIFICATION
                      ? REFUSED
                      : FAILED;
    }
}

size_t CurlTransfer::take_header(char *text, size_t one, size_t size, void *transfer)
{
    static_cast<CurlTransfer *>(transfer)->take_header_line({text, one * size});
    return one * size;
}

void CurlTransfer::take_header_line(const std::string &line)
{
    if (line.compare(0, 5, "HTTP/") == 0) {
        // Also behind a redirection, whose other fields don't count.
        const size_t blank = line.find(' ');
        m_status_line = blank == std::string::npos ? "" : trimmed(line.substr(blank));
        m_content_range.clear();
        m_answer = {};
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const std::string value = trimmed(line.substr(colon + 1));
    if (name == "content-range") m_content_range = value;
    if (name == "last-modified" && m_answer.version.empty()) m_answer.version = value;
    // A weak tag may stand for other bytes.
    if (name == "etag" && value.compare(0, 2, "W/") != 0) m_answer.version = value;
}

size_t CurlTransfer::take_bytes(char *bytes, size_t one, size_t size, void *transfer)
{
    auto &self = *static_cast<CurlTransfer *>(transfer);
    const size_t count = one * size;
    if (!self.m_f_answer && !self.take_answer()) return 0;
    if (self.m_receiver.on_bytes(reinterpret_cast<const uint8_t *>(bytes), count)) return count;
    self.m_f_paused = true;
    return CURL_WRITEFUNC_PAUSE;
}

// False when the answer doesn't fit the request, or the receiver doesn't want it.
bool CurlTransfer::take_answer()
{
    m_f_answer = true;
    const long code = status();
    if (code == STATUS_PARTIAL) {
        if (!read_content_range(m_content_range, m_answer) || m_answer.first != m_offset) {
            m_reason = "the server sends another range than was asked for";
            return false;
        }
        m_answer.f_range = true;
    } else {
        curl_off_t length = -1;
        m_curl.easy_getinfo(m_easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (length >= 0) m_answer.total = static_cast<uint64_t>(length);
    }
    return m_receiver.on_answer(m_answer);
}

long CurlTransfer::status() const
{
    long code = 0;
    m_curl.easy_getinfo(m_easy, CURLINFO_RESPONSE_CODE, &code);
    return code;
}

// "bytes first-last/total", the total "*" where it isn't known
bool read_content_range(const std::string &text, HttpAnswer &answer)
{
    const std::string unit = "bytes ";
    const size_t slash = text.find('/');
    if (text.compare(0, unit.size(), unit) != 0 || slash == std::string::npos) return false;
    const char *const end = text.data() + text.size();
    const auto first = std::from_chars(text.data() + unit.size(), end, answer.first);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-') return false;
    uint64_t total = 0;
    if (std::from_chars(text.data() + slash + 1, end, total).ec == std::errc())
        answer.total = total;
    return true;
}

std::string trimmed(const std::string &text)
{
    const char *const blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

#else

std::unique_ptr<HttpTransfer> make_http_transfer(const std::string &url, uint32_t /*connect_s*/,
                                                 HttpReceiver & /*receiver*/)
{
    throw NotDone(url, "this program was built without libcurl and reads no URLs");
}

#endif
