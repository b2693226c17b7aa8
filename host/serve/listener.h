// The socket that all servers accept on.

#ifndef HOST_SERVE_LISTENER_H
#define HOST_SERVE_LISTENER_H

#include <cstdint>
#include <string>
#include <vector>

#include "io/descriptor.h"

/// Takes the socket that the system has opened for this process, if it has (as systemd does, by
/// LISTEN_PID and LISTEN_FDS); else binds one. port 0: any that is free. Throws NotDone.
Descriptor open_listener(const std::string &address, uint16_t port);

/// The addresses at which a browser finds it, such as "http://127.0.0.1:8080/".
std::vector<std::string> addresses_of(const Descriptor &listener);

#endif
