#include "client_address.h"

#include <algorithm>
#include <cstring>

#include <netinet/in.h>

#include "listener.h"

ClientAddress client_address(const sockaddr *address)
{
    ClientAddress bytes = {};
    const auto last_four = bytes.begin() + 4;
    if (address->sa_family == AF_INET6) {
        const in6_addr six = copy_of<sockaddr_in6>(address).sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&six))
            std::copy(six.s6_addr + 12, six.s6_addr + 16, last_four);
        else
            std::copy(six.s6_addr, six.s6_addr + bytes.size(), bytes.begin());
    } else if (address->sa_family == AF_INET) {
        const in_addr four = copy_of<sockaddr_in>(address).sin_addr;
        std::memcpy(&*last_four, &four, sizeof four);
    }
    return bytes;
}
