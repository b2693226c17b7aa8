#include "http_transfer.h"

#include "message.h"

#if GOLT_HAS_CURL

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "curl_library.h"
#include "text.h"

namespace {

constexpr long MOST_REDIRECTS = 10;
constexpr long STATUS_PARTIAL = 206;
constexpr long STATUS_RANGE_BEHIND_END = 416;

/// Through libcurl's multi interface, which waits only where it is told to.
class CurlTransfer final : public HttpTransfer {
public:
    CurlTransfer(const std::string &url, const HttpOptions &options, HttpReceiver &receiver);
    ~CurlTransfer() override;
    CurlTransfer(const CurlTransfer &) = delete;
    CurlTransfer &operator=(const CurlTransfer &) = delete;

    void start(uint64_t offset, const std::string &tag) override;
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
    void set_certificates();
    void set_fields(const std::string &tag);
    void clear_answer();
    long status() const;
    bool refuse(const std::string &reason);
    void take_header_line(const std::string &line);
    bool take_answer();
    void end(CURLcode code);

    const CurlLibrary &m_curl;
    const HttpOptions &m_options;
    HttpReceiver &m_receiver;
    CURLM *m_multi;
    CURL *m_easy;
    curl_slist *m_fields = nullptr;  // of the request
    char m_error[CURL_ERROR_SIZE] = {};
    State m_state = IDLE;
    std::string m_reason;

    // Of the present request
    uint64_t m_offset = 0;
    std::string m_status_line;
    std::string m_content_range, m_encoding;
    uint64_t m_received = 0;  // bytes of the answer
    HttpAnswer m_answer;
    bool m_f_answer = false;  // it has been passed on
    bool m_f_paused = false;
};

bool read_content_range(const std::string &text, HttpAnswer &answer);
std::optional<uint64_t> total_of(const std::string &content_range);
std::string trimmed(const std::string &text);

}  // namespace

std::unique_ptr<HttpTransfer> make_http_transfer(const std::string &url, const HttpOptions &options,
                                                 HttpReceiver &receiver)
{
    return std::make_unique<CurlTransfer>(url, options, receiver);
}

namespace {

CurlTransfer::CurlTransfer(const std::string &url, const HttpOptions &options,
                           HttpReceiver &receiver)
    : m_curl(CurlLibrary::get())
    , m_options(options)
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
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(options.timeout_s));
    set(CURLOPT_ERRORBUFFER, m_error);
    set(CURLOPT_HEADERFUNCTION, &CurlTransfer::take_header);
    set(CURLOPT_HEADERDATA, static_cast<void *>(this));
    set(CURLOPT_WRITEFUNCTION, &CurlTransfer::take_bytes);
    set(CURLOPT_WRITEDATA, static_cast<void *>(this));
    if (options.f_netrc) set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
    set_certificates();
}

// What other programs of OpenSSL find in the environment counts too.
void CurlTransfer::set_certificates()
{
    if (m_options.f_insecure) {
        set(CURLOPT_SSL_VERIFYPEER, 0L);
        set(CURLOPT_SSL_VERIFYHOST, 0L);
    }
    const char *const file = std::getenv("SSL_CERT_FILE"), *const folder =
                                                               std::getenv("SSL_CERT_DIR");
    if (!m_options.ca_file.empty())
        set(CURLOPT_CAINFO, m_options.ca_file.c_str());
    else if (file != nullptr && *file != '\0')
        set(CURLOPT_CAINFO, file);
    if (m_options.ca_file.empty() && folder != nullptr && *folder != '\0')
        set(CURLOPT_CAPATH, folder);
}

CurlTransfer::~CurlTransfer()
{
    stop();
    m_curl.easy_cleanup(m_easy);
    m_curl.multi_cleanup(m_multi);
    m_curl.slist_free_all(m_fields);
}

void CurlTransfer::start(uint64_t offset, const std::string &tag)
{
    stop();
    set_fields(tag);
    m_offset = offset;
    m_status_line.clear();
    clear_answer();
    m_f_answer = false;
    m_received = 0;
    m_error[0] = '\0';
    m_reason.clear();
    set(CURLOPT_RANGE, fmt::format("{}-", offset).c_str());
    m_f_paused = false;
    m_state = RUNNING;
    if (m_curl.multi_add_handle(m_multi, m_easy) != CURLM_OK) throw std::bad_alloc();
}

// Of another version of the file the server shall send all: that shows.
void CurlTransfer::set_fields(const std::string &tag)
{
    std::vector<std::string> fields = m_options.headers;
    fields.push_back("Accept-Encoding: identity");
    if (!tag.empty()) fields.push_back("If-Range: " + tag);
    curl_slist *list = nullptr;
    for (const std::string &field : fields) {
        curl_slist *const longer = m_curl.slist_append(list, field.c_str());
        if (longer == nullptr) m_curl.slist_free_all(list);
        if (longer == nullptr) throw std::bad_alloc();
        list = longer;
    }
    set(CURLOPT_HTTPHEADER, list);
    m_curl.slist_free_all(std::exchange(m_fields, list));
}

void CurlTransfer::clear_answer()
{
    m_content_range.clear();
    m_encoding.clear();
    m_answer = {};
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
    const bool f_short = m_answer.end && m_received < *m_answer.end - m_answer.first;
    if (code == CURLE_OK && f_short) {
        m_reason = fmt::format("the server ended its answer {} early",
                               counted(*m_answer.end - m_answer.first - m_received, "byte"));
        m_state = FAILED;
    } else if (code == CURLE_OK) {
        m_state = DONE;
    } else if (f_refused && code_of_server == STATUS_RANGE_BEHIND_END) {
        m_state = DONE;
        m_receiver.on_nothing(total_of(m_content_range));
    } else if (f_refused) {
        m_reason = "the server answers " + m_status_line;
        m_state = code_of_server >= 500 || code_of_server == 408 || code_of_server == 429 ? FAILED
                                                                                          : REFUSED;
    } else {
        if (m_reason.empty())
            m_reason = m_error[0] != '\0' ? trimmed(m_error) : m_curl.easy_strerror(code);
        if (code == CURLE_PEER_FAILED_VERIFICATION)
            m_reason += "; --ca names a file of certificates to trust";
        m_state = code == CURLE_WRITE_ERROR || code == CURLE_TOO_MANY_REDIRECTS ||
                          code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_URL_MALFORMAT ||
                          code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE
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
        // Also after a redirection, whose other fields don't count.
        const size_t blank = line.find(' ');
        m_status_line = blank == std::string::npos ? "" : trimmed(line.substr(blank));
        clear_answer();
        // From version 2 on every answer has an end of its own.
        m_answer.f_framed = line.compare(5, 2, "1.") != 0;
        return;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const std::string value = trimmed(line.substr(colon + 1));
    if (name == "content-range") m_content_range = value;
    if (name == "content-encoding") m_encoding = value;
    if (name == "content-length") m_answer.f_framed = true;
    if (name == "transfer-encoding" && value.find("chunked") != std::string::npos)
        m_answer.f_framed = true;
    if (name == "last-modified") m_answer.modified = value;
    // A weak tag may denote other bytes.
    if (name == "etag" && value.compare(0, 2, "W/") != 0) m_answer.tag = value;
}

size_t CurlTransfer::take_bytes(char *bytes, size_t one, size_t size, void *transfer)
{
    auto &self = *static_cast<CurlTransfer *>(transfer);
    const size_t count = one * size;
    if (!self.m_f_answer && !self.take_answer()) return 0;
    const HttpAnswer &answer = self.m_answer;
    if (answer.end && count > *answer.end - answer.first - self.m_received) {
        self.refuse("the server sends more than it has announced");
        return 0;
    }
    if (self.m_receiver.on_bytes(reinterpret_cast<const uint8_t *>(bytes), count)) {
        self.m_received += count;
        return count;
    }
    self.m_f_paused = true;
    return CURL_WRITEFUNC_PAUSE;
}

// False when the answer doesn't fit the request, or the receiver doesn't want it.
bool CurlTransfer::take_answer()
{
    m_f_answer = true;
    const long code = status();
    if (!m_encoding.empty() && m_encoding != "identity")
        return refuse(fmt::format("the server sends the file encoded ({})", m_encoding));
    if (code == STATUS_PARTIAL) {
        if (!read_content_range(m_content_range, m_answer) || m_answer.first != m_offset)
            return refuse("the server sends another range than was asked for");
        m_answer.f_range = m_answer.f_framed = true;
    } else {
        curl_off_t length = -1;
        m_curl.easy_getinfo(m_easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (length >= 0) m_answer.total = static_cast<uint64_t>(length);
    }
    return m_receiver.on_answer(m_answer);
}

bool CurlTransfer::refuse(const std::string &reason)
{
    m_reason = reason;
    return false;
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
    uint64_t last = 0;
    const auto result = std::from_chars(first.ptr + 1, end, last);
    if (result.ec != std::errc() || result.ptr != text.data() + slash) return false;
    if (last < answer.first || last == UINT64_MAX) return false;
    answer.end = last + 1;
    answer.total = total_of(text);
    return !answer.total || *answer.total > last;
}

// After the slash of a Content-Range.
std::optional<uint64_t> total_of(const std::string &content_range)
{
    const size_t slash = content_range.find('/');
    uint64_t total = 0;
    if (slash == std::string::npos) return {};
    const auto result = std::from_chars(content_range.data() + slash + 1,
                                        content_range.data() + content_range.size(), total);
    if (result.ec != std::errc()) return {};
    return total;
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

std::unique_ptr<HttpTransfer> make_http_transfer(const std::string &url,
                                                 const HttpOptions & /*options*/,
                                                 HttpReceiver & /*receiver*/)
{
#if GOLT_STATIC
    throw NotDone(url, "golt-static reads no URLs: download the file, or use the program golt");
#else
    throw NotDone(url, "this program was built without libcurl and reads no URLs");
#endif
}

#endif
