#include "exchange.h"

#include <algorithm>
#include <ctime>

#include <fmt/format.h>
#include <strings.h>

#include "body.h"
#include "io/message.h"
#include "io/text.h"
#include "maker.h"
#include "page.h"
#include "parts.h"
#include "status.h"

namespace {

// What a version in the address stands for never changes.
const char *const FOR_EVER = "public, max-age=31536000, immutable";
// Addresses without one: caches before the server take the burst, and players see changes soon.
const char *const FOR_SECONDS = "public, max-age=10";
const char *const NEVER = "no-cache";

const char *const HTML = "text/html; charset=utf-8";
const char *const JSON = "application/json";
const char *const PLAYLIST = "application/vnd.apple.mpegurl";
const char *const STREAM = "video/mp2t";
const char *const TEXT = "text/plain; charset=utf-8";

const char *const METHODS = "GET, HEAD, OPTIONS";
// Pages load nothing from elsewhere. hls.js makes its streams and its worker out of blobs.
const char *const POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; media-src 'self' blob:; worker-src blob:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// A client that takes less is dropped, bytes in a second.
constexpr uint64_t LEAST_RATE = 16 * 1024;
// Results that go from the cache before they could be sent.
constexpr int MOST_TRIES = 8;
constexpr const char *SECONDS_TO_RETRY = "5";

// Of all texts that a server holds until they are sent, unless they are short.
constexpr uint64_t MOST_TEXT_BYTES = 16 * 1024 * 1024;

/// A field of a request, all of its lines.
struct Field {
    const char *name;
    std::string value = {};
    size_t lines = 0;
};

std::string tag_of(std::string_view text);
MHD_Result add_line(void *field, MHD_ValueKind kind, const char *name, const char *value);
std::string without_host(const std::string &path);

}  // namespace

Exchange::Exchange(ServerContext &context, Peer &peer, const std::string &path)
    : m_context(context)
    , m_peer(peer)
    , m_path(without_host(path.substr(0, path.find('?'))))
    , m_query(path.substr(std::min(path.find('?'), path.size())))
{
    ++m_context.exchanges;
}

Exchange::~Exchange()
{
    m_peer.f_answered = false;
    --m_context.exchanges;
}

MHD_Result Exchange::step(const char *method, size_t *upload_size)
{
    if (!m_f_begun) {
        m_f_begun = true;
        m_method = method;
        m_peer.deadline = steady_seconds() + m_context.setting.request_seconds();
        Field host = {MHD_HTTP_HEADER_HOST};
        m_context.http.get_connection_values(m_peer.connection, MHD_HEADER_KIND, add_line, &host);
        if (host.lines > 1) return refuse(MHD_HTTP_BAD_REQUEST, "more than one Host");
        // Those with a body are refused before it comes.
        const bool f_known = m_method == "GET" || m_method == "HEAD" || m_method == "OPTIONS";
        return f_known ? MHD_YES : refuse(MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD");
    }
    if (*upload_size != 0) {
        *upload_size = 0;
        return MHD_YES;
    }
    try {
        return m_reply ? answer_result() : route();
    } catch (const std::exception &error) {
        return refuse(MHD_HTTP_INTERNAL_SERVER_ERROR, error.what());
    }
}

void Exchange::on_reply(const Reply &reply)
{
    m_reply = reply;
    m_peer.f_waiting = false;
    m_context.http.resume_connection(m_peer.connection);
}

MHD_Result Exchange::route()
{
    if (m_method == "OPTIONS") {
        Answer answer;
        answer.status = MHD_HTTP_NO_CONTENT;
        return send(answer);
    }
    const Shared &shared = m_context.setting.shared;
    const auto address = parse_address(m_path);
    if (!address) return refuse(MHD_HTTP_NOT_FOUND, "there is no such address");
    m_address = *address;
    Answer answer;
    switch (m_address.kind) {
    case Address::STATUS:
        answer = own(JSON, NEVER, status_json(shared, m_context.setting.start));
        return send(answer);
    case Address::METRICS:
        answer = own("text/plain; version=0.0.4; charset=utf-8", NEVER,
                     status_metrics(shared, m_context.setting.start));
        return send(answer);
    case Address::PART: return route_part();
    default: break;
    }
    const auto place = m_context.setting.tree.find(m_address.names);
    if (!place) return refuse(MHD_HTTP_NOT_FOUND, "there is no such file");
    return m_address.kind == Address::PAGE ? route_place(*place) : route_result(*place);
}

MHD_Result Exchange::route_part()
{
    const std::string &hls_js = m_context.setting.parts.hls_js;
    const struct {
        const char *name, *type;
        std::string_view text;
    } rows[] = {{"page.css", "text/css; charset=utf-8", PAGE_CSS},
                {"page.js", "text/javascript; charset=utf-8", PAGE_JS},
                {"hls.js", "text/javascript; charset=utf-8", hls_js}};
    for (const auto &row : rows) {
        if (m_address.part != row.name || row.text.empty()) continue;
        Answer answer;
        answer.type = row.type;
        answer.caching = NEVER;
        answer.tag = tag_of(row.text);
        answer.part = row.text;
        return send(answer);
    }
    return refuse(MHD_HTTP_NOT_FOUND, "there is no such address");
}

// The page of a folder or a film.
MHD_Result Exchange::route_place(const Place &place)
{
    Answer answer;
    if (!m_address.f_slash) {
        answer.status = MHD_HTTP_MOVED_PERMANENTLY;
        answer.location = "./" + encoded(m_address.names.back()) + "/" + m_query;
        return send(answer);
    }
    if (place.f_top || place.kind != Place::FOLDER) {
        answer = own(HTML, NEVER,
                     place.f_top ? top_page(m_context.setting.tree)
                                 : film_page(m_context.setting.parts, m_address.names));
        return send(answer);
    }
    m_answer.type = HTML;
    m_answer.caching = NEVER;
    m_job.root = static_cast<uint32_t>(place.root);
    m_job.path = place.path;
    return wait();
}

// What a maker makes of a film.
MHD_Result Exchange::route_result(const Place &place)
{
    if (place.kind == Place::FOLDER) return refuse(MHD_HTTP_NOT_FOUND, "it is a folder");
    static const struct {
        Address::Kind kind;
        JobKind job;
        const char *type, *caching, *tag;
    } rows[] = {{Address::MASTER, JobKind::MASTER, PLAYLIST, FOR_SECONDS, "index"},
                {Address::MEDIA, JobKind::MEDIA, PLAYLIST, FOR_EVER, "media"},
                {Address::SEGMENT, JobKind::SEGMENT, STREAM, FOR_EVER, ""},
                {Address::DETAILS, JobKind::DETAILS, JSON, FOR_SECONDS, "details"}};
    const auto *row = &rows[0];
    while (row->kind != m_address.kind)
        ++row;

    m_job.kind = row->job;
    m_job.root = static_cast<uint32_t>(place.root);
    m_job.path = place.path;
    m_job.number = m_address.number;
    m_job.version = m_address.version;
    m_answer.type = row->type;
    m_answer.caching = row->caching;
    if (place.kind == Place::FILE) {
        m_job.version = version_of(place.status);
        if (!m_address.version.empty()) {
            if (m_address.version != m_job.version)
                return refuse(MHD_HTTP_NOT_FOUND, "the file has changed");
            // No later than the answer.
            m_answer.modified = std::min(place.status.st_mtime, time(nullptr));
        }
    }
    const auto size =
        m_job.version.empty() ? std::nullopt : m_context.setting.shared.find(m_job.key());
    if (!m_job.version.empty()) {
        const bool f_segment = m_job.kind == JobKind::SEGMENT;
        m_answer.tag = "\"" + m_job.version + "-" +
                       (f_segment ? std::to_string(m_job.number) : row->tag) + "\"";
        // Nothing has to be made for whoever has it. Who doesn't name it may ask for what there isn't.
        const Conditions asked = conditions();
        if (!size && asked.if_none_match.find(m_answer.tag) != std::string::npos &&
            judge(asked, m_answer.tag, m_answer.modified, {}).status == MHD_HTTP_NOT_MODIFIED) {
            m_answer.kept = m_job;
            m_answer.size = MHD_SIZE_UNKNOWN;
            return send(m_answer);
        }
    }
    if (m_job.kind == JobKind::SEGMENT)
        m_context.setting.shared.count(
            [&](Counters &counters) { ++(size ? counters.hits : counters.misses); });
    return size ? answer_kept(*size) : wait();
}

MHD_Result Exchange::wait()
{
    m_reply.reset();
    if (!m_context.work.add(m_job, *this))
        return refuse(MHD_HTTP_SERVICE_UNAVAILABLE, "there is too much to do");
    m_peer.f_waiting = true;
    m_context.http.suspend_connection(m_peer.connection);
    return MHD_YES;
}

MHD_Result Exchange::answer_result()
{
    if (m_reply->status != MHD_HTTP_OK) return refuse(m_reply->status, m_reply->text);
    return answer_kept(m_reply->size);
}

MHD_Result Exchange::answer_kept(uint64_t size)
{
    if (!m_job.version.empty()) {
        m_answer.kept = m_job;
        m_answer.size = size;
        return send(m_answer);
    }
    // Nobody else is given a result without a version: it is held until it is sent.
    if (size > MOST_TEXT_BYTES) return refuse(MHD_HTTP_INTERNAL_SERVER_ERROR, "it is too long");
    m_answer.text.resize(static_cast<size_t>(size));
    if (!m_context.setting.shared.read(m_job.key(), 0,
                                       reinterpret_cast<uint8_t *>(m_answer.text.data()),
                                       m_answer.text.size()))
        // Others have made so much that it has gone already.
        return ++m_tries < MOST_TRIES
                   ? wait()
                   : refuse(MHD_HTTP_SERVICE_UNAVAILABLE, "the cache is too small");
    m_answer.tag = tag_of(m_answer.text);
    return send(m_answer);
}

MHD_Result Exchange::refuse(unsigned status, const std::string &reason)
{
    Answer answer;
    answer.status = status;
    answer.type = TEXT;
    answer.text = printable(reason) + "\n";
    return send(answer);
}

// What the server itself says.
Answer Exchange::own(const char *type, const char *caching, std::string text) const
{
    Answer answer;
    answer.type = type;
    answer.caching = caching;
    answer.tag = tag_of(text);
    answer.text = std::move(text);
    return answer;
}

MHD_Result Exchange::send(Answer &answer)
{
    const HttpLibrary &http = m_context.http;
    uint64_t size = answer.kept           ? answer.size
                    : answer.part.empty() ? answer.text.size()
                                          : answer.part.size();
    const uint64_t whole = size;
    Verdict verdict = {answer.status, 0, size};
    if (answer.status == MHD_HTTP_OK)
        verdict = judge(conditions(), answer.tag, answer.modified, size);
    const bool f_body =
        verdict.status == answer.status || verdict.status == MHD_HTTP_PARTIAL_CONTENT;
    const bool f_too_much = f_body && answer.text.size() > SHORT_TEXT &&
                            m_context.text_bytes + answer.text.size() > MOST_TEXT_BYTES;
    // This exchange may last as long as the client likes.
    if (!f_body || f_too_much) std::string().swap(answer.text);
    if (f_too_much)
        return refuse(MHD_HTTP_SERVICE_UNAVAILABLE, "too many long pages are under way");
    size = f_body ? verdict.size : 0;
    // Who has the body already is told its length, not that of nothing.
    const uint64_t length = verdict.status == MHD_HTTP_NOT_MODIFIED ? whole : size;
    MHD_Response *const response =
        length == size ? make_response(answer, verdict.first, size) : make_head(m_context, length);
    if (response == nullptr) return MHD_NO;

    const auto add = [&](const char *name, const std::string &value) {
        if (!value.empty()) http.add_response_header(response, name, value.c_str());
    };
    if (f_body) add(MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
    add(MHD_HTTP_HEADER_CACHE_CONTROL,
        verdict.status >= MHD_HTTP_BAD_REQUEST ? "no-store" : answer.caching);
    add(MHD_HTTP_HEADER_ETAG, answer.tag);
    if (answer.modified != 0) add(MHD_HTTP_HEADER_LAST_MODIFIED, http_date(answer.modified));
    add(MHD_HTTP_HEADER_LOCATION, answer.location);
    if (answer.status == MHD_HTTP_OK) add(MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    if (verdict.status == MHD_HTTP_PARTIAL_CONTENT)
        add(MHD_HTTP_HEADER_CONTENT_RANGE,
            fmt::format("bytes {}-{}/{}", verdict.first, verdict.first + verdict.size - 1, whole));
    if (verdict.status == MHD_HTTP_RANGE_NOT_SATISFIABLE)
        add(MHD_HTTP_HEADER_CONTENT_RANGE, fmt::format("bytes */{}", whole));
    if (verdict.status == MHD_HTTP_SERVICE_UNAVAILABLE)
        add(MHD_HTTP_HEADER_RETRY_AFTER, SECONDS_TO_RETRY);
    if (verdict.status == MHD_HTTP_METHOD_NOT_ALLOWED || m_method == "OPTIONS")
        add(MHD_HTTP_HEADER_ALLOW, METHODS);
    if (answer.type == HTML) {
        add("Content-Security-Policy", POLICY);
        add("Referrer-Policy", "no-referrer");
    }
    add("X-Content-Type-Options", "nosniff");
    // Players in pages from elsewhere may read all of it.
    add("Access-Control-Allow-Origin", "*");
    add("Access-Control-Expose-Headers", "Content-Length, Content-Range, ETag, Retry-After");
    if (m_method == "OPTIONS") {
        add("Access-Control-Allow-Methods", METHODS);
        add("Access-Control-Allow-Headers", "Range, If-Range, If-None-Match, If-Modified-Since");
        add("Access-Control-Max-Age", "86400");
    }
    m_peer.f_answered = true;
    m_peer.deadline = steady_seconds() + m_context.setting.request_seconds() +
                      static_cast<int64_t>(size / LEAST_RATE);
    m_context.setting.shared.count([&](Counters &counters) {
        ++counters.answers[verdict.status / 100 % counters.answers.size()];
        if (!answer.kept && m_method != "HEAD") counters.bytes += size;
    });
    const MHD_Result result = http.queue_response(m_peer.connection, verdict.status, response);
    http.destroy_response(response);
    return result;
}

MHD_Response *Exchange::make_response(Answer &answer, uint64_t first, uint64_t size)
{
    if (answer.kept && size != 0) return make_body(m_context, m_peer, *answer.kept, first, size);
    if (size != 0 && !answer.text.empty())
        return make_text(m_context, std::move(answer.text), first, size);
    const char *const part = size == 0 ? "" : answer.part.data() + first;
    return m_context.http.create_response_from_buffer(
        static_cast<size_t>(size), const_cast<char *>(part), MHD_RESPMEM_PERSISTENT);
}

Conditions Exchange::conditions() const
{
    return {field(MHD_HTTP_HEADER_IF_MATCH),
            field(MHD_HTTP_HEADER_IF_NONE_MATCH),
            field(MHD_HTTP_HEADER_IF_MODIFIED_SINCE),
            field(MHD_HTTP_HEADER_IF_UNMODIFIED_SINCE),
            field(MHD_HTTP_HEADER_IF_RANGE),
            m_method == "GET" ? field(MHD_HTTP_HEADER_RANGE) : ""};
}

std::string Exchange::field(const char *name) const
{
    Field field = {name};
    m_context.http.get_connection_values(m_peer.connection, MHD_HEADER_KIND, add_line, &field);
    return field.value;
}

namespace {

std::string tag_of(std::string_view text)
{
    return fmt::format("\"{:016x}\"", hash_of(text));
}

MHD_Result add_line(void *field, MHD_ValueKind /*kind*/, const char *name, const char *value)
{
    auto &wanted = *static_cast<Field *>(field);
    if (value == nullptr || strcasecmp(name, wanted.name) != 0) return MHD_YES;
    std::string line = value;
    line.erase(line.find_last_not_of(" \t") + 1);
    ++wanted.lines;
    wanted.value += (wanted.value.empty() ? "" : ", ") + line;
    return MHD_YES;
}

// A request may name all of the URL, as proxies are asked.
std::string without_host(const std::string &path)
{
    const std::string scheme = "http://";
    if (strncasecmp(path.c_str(), scheme.c_str(), scheme.size()) != 0) return path;
    const size_t slash = path.find('/', scheme.size());
    return slash == std::string::npos ? "/" : path.substr(slash);
}

}  // namespace
