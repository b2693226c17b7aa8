#include "job.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "io/message.h"
#include "shared.h"

namespace {

bool send_bytes(const Descriptor &to, const std::string &bytes)
{
    return !bytes.empty() && send(to.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
}

// One byte more would be a message that nobody here has written.
bool receive_bytes(const Descriptor &from, std::string &bytes)
{
    std::array<char, LARGEST_MESSAGE + 1> message;
    const ssize_t size = recv(from.get(), message.data(), message.size(), 0);
    if (size < 0) return false;
    bytes.assign(message.data(), static_cast<size_t>(size));
    return true;
}

}  // namespace

uint64_t Job::subject() const
{
    // A request for a URL may name any version.
    return hash_of((path.empty() ? "" : version) + "/" + std::to_string(root) + "/" + path);
}

Channel::Channel()
{
    int ends[2];
    // Not for datagrams: such sockets can be sent from, and connected, to those of other programs.
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        throw NotDone("a pair of sockets", error_text(errno));
    to = Descriptor(ends[0]);
    from = Descriptor(ends[1]);
}

bool send_job(const Channel &channel, const Job &job)
{
    return send_bytes(channel.to, bytes_of(job));
}

bool has_no_job(const Channel &channel)
{
    pollfd ready = {channel.from.get(), POLLIN, 0};
    return poll(&ready, 1, 0) == 0;
}

bool receive_job(const Channel &channel, Job &job)
{
    std::string bytes;
    return receive_bytes(channel.from, bytes) && read_job(bytes, job);
}

bool send_reply(const Channel &channel, const Reply &reply)
{
    return send_bytes(channel.to, bytes_of(reply));
}

bool receive_reply(const Channel &channel, Reply &reply)
{
    std::string bytes;
    return receive_bytes(channel.from, bytes) && read_reply(bytes, reply);
}
