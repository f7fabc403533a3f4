#include "net/ip_network.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>

using halyx::net::IPAnyNetwork;

namespace
{

// Whitelist words: how they are read, and how they are written back.
TEST(ParseAddress, Words)
{
    const struct {
        const char *word;
        int family;
        const char *written;
    } cases[] = {
        // clang-format off
        {"10.0.0.1", AF_INET, "10.0.0.1/0"}, {"[2001:db8::]/48", AF_INET6, "2001:db8::/48"},
        {"2001:DB8::1/64", AF_INET6, "2001:db8::1/64"}, {"[2001:db8::1]:25", AF_UNSPEC, "[2001:db8::1]:25"},
        {"[::1", AF_UNSPEC, "[::1"}, {"relayhost", AF_UNSPEC, "relayhost"},
        {"10.0.0.1:25", AF_UNSPEC, "10.0.0.1:25"}, {"[10.0.0.1]", AF_UNSPEC, "[10.0.0.1]"},
        // the prefix goes through the strict number reader; a refusal leaves 0
        {"192.168.0.0/255.255.255.0", AF_INET, "192.168.0.0/0"}, {"10.0.0.0/65536", AF_INET, "10.0.0.0/0"},
        {"10.0.0.0/+ 24", AF_INET, "10.0.0.0/24"},
        // clang-format on
    };
    for (const auto &c : cases) {
        IPAnyNetwork n(c.word);
        EXPECT_EQ(n.family(), c.family) << c.word;
        EXPECT_EQ(n.to_string(), c.written) << c.word;
    }
    // the zone stays in the text (by the interface's name where the machine has one)
    EXPECT_EQ(IPAnyNetwork("fe80::1%2/64").to_string().rfind("fe80::1%", 0), 0u);
}

TEST(IPNetwork, Containment)
{
    const struct {
        const char *word, *ip;
        bool inside;
    } cases[] = {
        // clang-format off
        {"10.1.2.3", "10.1.2.4", false}, {"10.0.0.0/8", "10.200.1.1", true}, {"10.0.0.0/8", "11.0.0.0", false},
        {"10.0.0.0/99", "10.0.0.0", true}, {"10.0.0.0/99", "10.0.0.1", false},
        {"10.0.0.0/8", "::ffff:10.0.0.1", false}, {"2001:db8::/32", "2001:db9::1", false},
        {"2001:db8::1", "::1", true}, // IPv6 without a prefix admits every IPv6 client
        {"2001:db8::1", "10.0.0.1", false},
        {"2001:db8::/33", "2001:db8:7fff::1", true}, {"2001:db8::/33", "2001:db8:8000::1", false},
        {"fe80::1%2/64", "fe80::1", false}, // inet_pton refuses the zone
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(IPAnyNetwork(c.word).contains(c.ip), c.inside) << c.word << " " << c.ip;
}

TEST(IPNetwork, Equality)
{
    // the text and prefix forms of equality meet the whitelist edits; these do not
    EXPECT_FALSE(IPAnyNetwork("10.0.0.1").addr_eq(IPAnyNetwork("::ffff:10.0.0.1")));
    EXPECT_TRUE(IPAnyNetwork("bogus", 1).addr_eq(IPAnyNetwork("0.0.0.0", 2)));
}

} // namespace
