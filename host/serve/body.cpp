#include "body.h"

#include <algorithm>

namespace {

// The buffers of all bodies of a server together, and each of them. Larger ones make slow clients cheap
// when the cache is too small for them all.
constexpr uint64_t BUFFERS_SIZE = 8 * 1024 * 1024;
constexpr uint64_t LEAST_BUFFER = 16 * 1024;
constexpr uint64_t MOST_BUFFER = 256 * 1024;
// In a row, that have been made again and are gone from the cache before they are read.
constexpr int MOST_TRIES = 64;

class Body final : public Waiter {
public:
    Body(ServerContext &context, Peer &peer, const Job &job, uint64_t first, uint64_t size);
    ~Body();
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;

    ssize_t read(uint64_t at, char *to, size_t most);
    void on_reply(const Reply &reply) override;

private:
    ServerContext &m_context;
    Peer &m_peer;
    Job m_job;
    const std::string m_key;
    const uint64_t m_first, m_size;
    bool m_f_failed = false;
    int m_tries = 0;  // since bytes were read
};

/// A text that the server holds until it is sent.
class Text {
public:
    Text(ServerContext &context, std::string text)
        : m_context(context)
        , m_text(std::move(text))
    {
        m_context.text_bytes += counted();
    }
    ~Text() { m_context.text_bytes -= counted(); }
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;

    char *at(uint64_t place) { return &m_text[static_cast<size_t>(place)]; }

private:
    uint64_t counted() const { return m_text.size() > SHORT_TEXT ? m_text.size() : 0; }

    ServerContext &m_context;
    std::string m_text;
};

ssize_t read_nothing(void * /*body*/, uint64_t /*at*/, char * /*to*/, size_t /*most*/)
{
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

ssize_t read_body(void *body, uint64_t at, char *to, size_t most)
{
    return static_cast<Body *>(body)->read(at, to, most);
}

void free_body(void *body)
{
    delete static_cast<Body *>(body);
}

void free_text(void *text)
{
    delete static_cast<Text *>(text);
}

}  // namespace

MHD_Response *make_body(ServerContext &context, Peer &peer, const Job &job, uint64_t first,
                        uint64_t size)
{
    auto *const body = new Body(context, peer, job, first, size);
    const uint64_t share =
        std::clamp(BUFFERS_SIZE / std::max<uint64_t>(context.bodies, 1), LEAST_BUFFER, MOST_BUFFER);
    const size_t buffer = static_cast<size_t>(std::min(share, std::max<uint64_t>(size, 1)));
    MHD_Response *const response =
        context.http.create_response_from_callback(size, buffer, read_body, body, free_body);
    if (response == nullptr) free_body(body);
    return response;
}

MHD_Response *make_text(ServerContext &context, std::string text, uint64_t first, uint64_t size)
{
    auto *const body = new Text(context, std::move(text));
    MHD_Response *const response = context.http.create_response_from_buffer_with_free_callback_cls(
        static_cast<size_t>(size), body->at(first), free_text, body);
    if (response == nullptr) free_text(body);
    return response;
}

MHD_Response *make_head(ServerContext &context, uint64_t length)
{
    MHD_Response *const response =
        context.http.create_response_from_callback(length, 1, read_nothing, nullptr, nullptr);
    // Else the head announces chunks, and the last one is sent. So the connection closes instead.
    if (response != nullptr && length == MHD_SIZE_UNKNOWN)
        context.http.set_response_options(response, MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    return response;
}

namespace {

Body::Body(ServerContext &context, Peer &peer, const Job &job, uint64_t first, uint64_t size)
    : m_context(context)
    , m_peer(peer)
    , m_job(job)
    , m_key(job.key())
    , m_first(first)
    , m_size(size)
{
    ++m_context.bodies;
}

Body::~Body()
{
    --m_context.bodies;
}

ssize_t Body::read(uint64_t at, char *to, size_t most)
{
    Shared &shared = m_context.setting.shared;
    const auto size = static_cast<size_t>(std::min<uint64_t>(most, m_size - std::min(at, m_size)));
    if (size == 0) return MHD_CONTENT_READER_END_OF_STREAM;
    if (shared.read(m_key, m_first + at, reinterpret_cast<uint8_t *>(to), size)) {
        m_tries = 0;
        shared.count([&](Counters &counters) { counters.bytes += size; });
        return static_cast<ssize_t>(size);
    }
    // The client sees an answer that breaks off.
    if (m_f_failed || ++m_tries > MOST_TRIES || !m_context.work.add(m_job, *this))
        return MHD_CONTENT_READER_END_WITH_ERROR;
    m_peer.f_waiting = true;
    m_context.http.suspend_connection(m_peer.connection);
    return 0;
}

void Body::on_reply(const Reply &reply)
{
    // A file may change without a change of its version.
    m_f_failed = reply.status != MHD_HTTP_OK || reply.size < m_first + m_size;
    m_peer.f_waiting = false;
    // The wait was none of the client's doing.
    m_peer.deadline =
        std::max(m_peer.deadline, steady_seconds() + m_context.setting.request_seconds());
    m_context.http.resume_connection(m_peer.connection);
}

}  // namespace
