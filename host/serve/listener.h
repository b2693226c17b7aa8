// The socket that all servers accept on.

#ifndef HOST_SERVE_LISTENER_H
#define HOST_SERVE_LISTENER_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "io/descriptor.h"

/// Takes the socket that the system has opened for this process, if it has (as systemd does, by
/// LISTEN_PID and LISTEN_FDS); else binds one. port 0: any that is free. Throws NotDone.
Descriptor open_listener(const std::string &address, uint16_t port);

/// The addresses at which a browser finds it, such as "http://127.0.0.1:8080/".
std::vector<std::string> addresses_of(const Descriptor &listener);

/// An address as its family has it. What a sockaddr points to is longer, and its type needn't be aligned for it.
template <typename Address> Address copy_of(const sockaddr *address)
{
    Address copy;
    std::memcpy(&copy, address, sizeof copy);
    return copy;
}

#endif
