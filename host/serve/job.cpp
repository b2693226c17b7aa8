#include "job.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "io/message.h"
#include "shared.h"

namespace {

// Above the longest path and the longest reason.
constexpr size_t LARGEST_MESSAGE = 8192;
constexpr size_t LONGEST_TEXT = 1024;

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

using Message = std::array<char, LARGEST_MESSAGE>;

template <typename Head>
bool send_message(const Descriptor &to, const Head &head, const std::string &text)
{
    Message message;
    if (sizeof head + text.size() > message.size()) return false;
    memcpy(message.data(), &head, sizeof head);
    memcpy(message.data() + sizeof head, text.data(), text.size());
    return send(to.get(), message.data(), sizeof head + text.size(), MSG_NOSIGNAL) >= 0;
}

template <typename Head> bool receive_message(const Descriptor &from, Head &head, std::string &text)
{
    Message message;
    const ssize_t size = recv(from.get(), message.data(), message.size(), 0);
    if (size < static_cast<ssize_t>(sizeof head)) return false;
    memcpy(&head, message.data(), sizeof head);
    text.assign(message.data() + sizeof head, static_cast<size_t>(size) - sizeof head);
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

uint64_t Job::subject() const
{
    return hash_of(version + "/" + std::to_string(root) + "/" + path);
}

Channel::Channel()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        throw NotDone("a pair of sockets", error_text(errno));
    to = Descriptor(ends[0]);
    from = Descriptor(ends[1]);
}

bool send_job(const Channel &channel, const Job &job)
{
    const JobHead head = {
        job.id,  job.number, job.server, job.root, static_cast<uint32_t>(job.version.size()),
        job.kind};
    return send_message(channel.to, head, job.version + job.path);
}

bool has_no_job(const Channel &channel)
{
    pollfd ready = {channel.from.get(), POLLIN, 0};
    return poll(&ready, 1, 0) == 0;
}

bool receive_job(const Channel &channel, Job &job)
{
    JobHead head = {};
    std::string text;
    if (!receive_message(channel.from, head, text) || head.version_size > text.size()) return false;
    job = {head.id,
           head.server,
           head.kind,
           head.root,
           head.number,
           text.substr(0, head.version_size),
           text.substr(head.version_size)};
    return true;
}

bool send_reply(const Channel &channel, const Reply &reply)
{
    const ReplyHead head = {reply.id, reply.size, reply.status};
    return send_message(channel.to, head, reply.text.substr(0, LONGEST_TEXT));
}

bool receive_reply(const Channel &channel, Reply &reply)
{
    ReplyHead head = {};
    if (!receive_message(channel.from, head, reply.text)) return false;
    reply.id = head.id;
    reply.status = head.status;
    reply.size = head.size;
    return true;
}
