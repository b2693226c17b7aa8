// What clients are told apart by where their connections are counted.

#ifndef HOST_SERVE_CLIENT_ADDRESS_H
#define HOST_SERVE_CLIENT_ADDRESS_H

#include <array>
#include <cstdint>

#include <sys/socket.h>

/// Of IPv6 the first half of the address, as a host may have all that begin with it; or four bytes 0 and those of
/// IPv4.
using ClientAddress = std::array<uint8_t, 8>;

/// Where a socket takes both, IPv4 comes mapped to IPv6. All other families are one client.
ClientAddress client_address(const sockaddr *address);

#endif
