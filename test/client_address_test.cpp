#include "serve/client_address.h"

#include <gtest/gtest.h>

#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

ClientAddress address_of(const char *text)
{
    sockaddr_storage address = {};
    sockaddr_in four = {};
    sockaddr_in6 six = {};
    if (inet_pton(AF_INET, text, &four.sin_addr) == 1) {
        four.sin_family = AF_INET;
        std::memcpy(&address, &four, sizeof four);
    } else if (inet_pton(AF_INET6, text, &six.sin6_addr) == 1) {
        six.sin6_family = AF_INET6;
        std::memcpy(&address, &six, sizeof six);
    }
    return client_address(reinterpret_cast<const sockaddr *>(&address));
}

TEST(ClientAddress, TellsHostsApart)
{
    struct {
        const char *name, *one, *other;
        bool f_same;
    } const rows[] = {
        {"addresses of one host", "2001:db8:0:1::1", "2001:db8:0:1:ffff:ffff:ffff:ffff", true},
        {"networks of IPv6", "2001:db8:0:1::1", "2001:db8:0:2::1", false},
        {"hosts of IPv4", "192.0.2.1", "192.0.2.2", false},
        {"hosts of IPv4 at a socket for both", "::ffff:192.0.2.1", "::ffff:192.0.2.2", false},
        {"one host of IPv4 at both sockets", "::ffff:192.0.2.1", "192.0.2.1", true},
        {"the same digits in both", "192.0.2.1", "c000:201::1", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(address_of(row.one) == address_of(row.other), row.f_same);
    }
}

}  // namespace
