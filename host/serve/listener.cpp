#include "listener.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "io/message.h"

namespace {

constexpr int BACKLOG = 1024;
// The first descriptor that is passed, as sd_listen_fds(3) has it.
constexpr int FIRST_PASSED = 3;
constexpr int MOST_UNSENT = 256 * 1024;  // bytes, for each connection

struct Place {
    sockaddr_storage address;
    socklen_t size;
};

Descriptor passed_listener();
Descriptor bound_listener(const std::string &address, uint16_t port);
Place find_place(const std::string &address, uint16_t port);
std::string address_text(const sockaddr *address);
bool is_any(const sockaddr_storage &address);

}  // namespace

Descriptor open_listener(const std::string &address, uint16_t port)
{
    Descriptor listener = passed_listener();
    if (!listener.is_open()) listener = bound_listener(address, port);
    // Connections inherit it. Without it the kernel takes megabytes for a client that takes nothing.
    setsockopt(listener.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &MOST_UNSENT, sizeof MOST_UNSENT);
    return listener;
}

std::vector<std::string> addresses_of(const Descriptor &listener)
{
    sockaddr_storage own = {};
    socklen_t size = sizeof own;
    if (getsockname(listener.get(), reinterpret_cast<sockaddr *>(&own), &size) != 0) return {};
    const uint16_t port = own.ss_family == AF_INET6
                              ? reinterpret_cast<const sockaddr_in6 &>(own).sin6_port
                              : reinterpret_cast<const sockaddr_in &>(own).sin_port;
    const std::string tail = ":" + std::to_string(ntohs(port)) + "/";
    if (!is_any(own))
        return {"http://" + address_text(reinterpret_cast<const sockaddr *>(&own)) + tail};
    std::vector<std::string> addresses;
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0) {
        // As where a service may not ask. The name is cut when it is too long.
        char name[256] = "";
        gethostname(name, sizeof name - 1);
        return {std::string("http://") + name + tail};
    }
    for (const ifaddrs *at = first; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || (at->ifa_flags & IFF_UP) == 0) continue;
        // Those of IPv6 that are valid on one link alone need more than the address.
        const auto is_valid_everywhere = [at] {
            const auto six = copy_of<sockaddr_in6>(at->ifa_addr);
            return !IN6_IS_ADDR_LINKLOCAL(&six.sin6_addr);
        };
        const bool f_shown = at->ifa_addr->sa_family == AF_INET ||
                             (at->ifa_addr->sa_family == AF_INET6 && own.ss_family == AF_INET6 &&
                              is_valid_everywhere());
        if (f_shown) addresses.push_back("http://" + address_text(at->ifa_addr) + tail);
    }
    freeifaddrs(first);
    return addresses;
}

namespace {

Descriptor passed_listener()
{
    const char *const process = getenv("LISTEN_PID");
    const char *const count = getenv("LISTEN_FDS");
    if (process == nullptr || count == nullptr || strtol(process, nullptr, 10) != getpid())
        return {};
    if (strtol(count, nullptr, 10) != 1) throw NotDone("LISTEN_FDS", "one socket is needed");
    int is_listening = 0;
    socklen_t size = sizeof is_listening;
    if (getsockopt(FIRST_PASSED, SOL_SOCKET, SO_ACCEPTCONN, &is_listening, &size) != 0 ||
        is_listening == 0)
        throw NotDone("LISTEN_FDS", "it isn't a socket that listens");
    int family = AF_UNSPEC;
    getsockopt(FIRST_PASSED, SOL_SOCKET, SO_DOMAIN, &family, &size);
    if (family != AF_INET && family != AF_INET6)
        throw NotDone("LISTEN_FDS", "it isn't a socket of IPv4 or IPv6");
    fcntl(FIRST_PASSED, F_SETFD, FD_CLOEXEC);
    fcntl(FIRST_PASSED, F_SETFL, fcntl(FIRST_PASSED, F_GETFL) | O_NONBLOCK);
    return Descriptor(FIRST_PASSED);
}

Descriptor bound_listener(const std::string &address, uint16_t port)
{
    const Place place = find_place(address, port);
    Descriptor listener(
        socket(place.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int one = 1;
    if (!listener.is_open() ||
        setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&place.address), place.size) != 0 ||
        listen(listener.get(), BACKLOG) != 0)
        throw NotDone(address + ":" + std::to_string(port), error_text(errno));
    return listener;
}

#if GOLT_STATIC

// To look up a name the C library would load others, which a device needn't have.
Place find_place(const std::string &address, uint16_t port)
{
    Place place = {};
    auto &four = reinterpret_cast<sockaddr_in &>(place.address);
    auto &six = reinterpret_cast<sockaddr_in6 &>(place.address);
    if (inet_pton(AF_INET, address.c_str(), &four.sin_addr) == 1) {
        four.sin_family = AF_INET;
        four.sin_port = htons(port);
        place.size = sizeof four;
    } else if (inet_pton(AF_INET6, address.c_str(), &six.sin6_addr) == 1) {
        six.sin6_family = AF_INET6;
        six.sin6_port = htons(port);
        place.size = sizeof six;
    } else {
        throw NotDone(address, "golt-static looks up no names; give an address in numbers");
    }
    return place;
}

#else

Place find_place(const std::string &address, uint16_t port)
{
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int result = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result != 0) throw NotDone(address, gai_strerror(result));
    Place place = {};
    std::memcpy(&place.address, found->ai_addr, found->ai_addrlen);
    place.size = found->ai_addrlen;
    freeaddrinfo(found);
    return place;
}

#endif

std::string address_text(const sockaddr *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET6) {
        const auto six = copy_of<sockaddr_in6>(address);
        return std::string("[") + inet_ntop(AF_INET6, &six.sin6_addr, text, sizeof text) + "]";
    }
    const auto four = copy_of<sockaddr_in>(address);
    return inet_ntop(AF_INET, &four.sin_addr, text, sizeof text);
}

bool is_any(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET6)
        return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr);
    return reinterpret_cast<const sockaddr_in &>(address).sin_addr.s_addr == INADDR_ANY;
}

}  // namespace
