// Jobs and replies as bytes. Whoever writes them has been handling what comes from outside, and may have fallen
// for it: nothing in a message is taken on trust.

#include <cstring>

#include "job.h"

namespace {

constexpr size_t LONGEST_TEXT = 1024;  // of a reply
constexpr unsigned STATUS_DONE = 200, FIRST_REFUSAL = 400, LAST_REFUSAL = 599;

// The fixed parts; the strings follow.
struct JobHead {
    uint64_t id, number;
    uint32_t server, root, version_size;
    JobKind kind;
};
struct ReplyHead {
    uint64_t id, size;
    uint32_t status;
};

template <typename Head> std::string joined(const Head &head, const std::string &text)
{
    if (sizeof head + text.size() > LARGEST_MESSAGE) return "";
    std::string bytes(sizeof head, '\0');
    memcpy(&bytes[0], &head, sizeof head);
    return bytes + text;
}

template <typename Head> bool part(const std::string &bytes, Head &head, std::string &text)
{
    if (bytes.size() < sizeof head || bytes.size() > LARGEST_MESSAGE) return false;
    memcpy(&head, bytes.data(), sizeof head);
    text = bytes.substr(sizeof head);
    return true;
}

}  // namespace

std::string Job::key() const
{
    const std::string own =
        version.empty() ? "#" + std::to_string(server) + "." + std::to_string(id) : version;
    return std::to_string(static_cast<unsigned>(kind)) + "/" + std::to_string(number) + "/" + own +
           "/" + std::to_string(root) + "/" + path;
}

std::string bytes_of(const Job &job)
{
    JobHead head = {};
    head.id = job.id;
    head.number = job.number;
    head.server = job.server;
    head.root = job.root;
    head.version_size = static_cast<uint32_t>(job.version.size());
    head.kind = job.kind;
    return joined(head, job.version + job.path);
}

bool read_job(const std::string &bytes, Job &job)
{
    JobHead head = {};
    std::string text;
    if (!part(bytes, head, text) || head.version_size > text.size()) return false;
    if (head.kind > JobKind::SEGMENT) return false;
    job = {head.id,
           head.server,
           head.kind,
           head.root,
           head.number,
           text.substr(0, head.version_size),
           text.substr(head.version_size)};
    return true;
}

std::string bytes_of(const Reply &reply)
{
    ReplyHead head = {};
    head.id = reply.id;
    head.size = reply.size;
    head.status = reply.status;
    return joined(head, reply.text.substr(0, LONGEST_TEXT));
}

bool read_reply(const std::string &bytes, Reply &reply)
{
    ReplyHead head = {};
    std::string text;
    if (!part(bytes, head, text)) return false;
    const bool f_refused = head.status >= FIRST_REFUSAL && head.status <= LAST_REFUSAL;
    if (head.status != STATUS_DONE && head.status != Reply::LOST && !f_refused) return false;
    reply = {head.id, head.status, head.size, text};
    return true;
}
