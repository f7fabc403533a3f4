/*
 * ip_network - client networks of the signing whitelist: an IPv4 or IPv6
 * address with a prefix length, or a host name (any word that is not an
 * address, which contains nothing).
 *
 * Addresses are kept as text: canonical when parsed from a word, as given
 * when built from an address and a prefix.  Prefixes are not checked against
 * 32/128.  Parsing never fails; only allocation failures throw.
 */
#ifndef HALYX_NET_IP_NETWORK_HPP
#define HALYX_NET_IP_NETWORK_HPP

#include <boost/variant.hpp>
#include <cstdint>
#include <string>

namespace halyx::net
{

class IPv4Network
{
  public:
    IPv4Network(std::string address, uint16_t prefix);
    IPv4Network(std::string address, const std::string &netmask);
    std::string netmask() const;
    std::string to_string() const;
    bool operator==(const IPv4Network &) const = default;

    std::string address;
    uint16_t prefix;
};

class IPv6Network
{
  public:
    IPv6Network(std::string address, uint16_t prefix);
    std::string to_string() const;
    std::string to_quoted_string() const; // "[addr]/prefix"
    bool operator==(const IPv6Network &) const = default;

    std::string address;
    uint16_t prefix;
};

class IPAnyNetwork
{
  public:
    using Value = boost::variant<std::string, IPv4Network, IPv6Network>;

    explicit IPAnyNetwork(const Value &value);
    explicit IPAnyNetwork(const std::string &text); // one whitelist word
    explicit IPAnyNetwork(const char *text) : IPAnyNetwork(std::string(text)) {}
    IPAnyNetwork(const std::string &address, uint16_t prefix); // IPv6 when it holds ':'

    int family() const;                                // AF_UNSPEC for a host name
    bool contains(const std::string &ip) const;        // the whitelist's rule (inSubnet)
    bool contains_prefix(const std::string &ip) const; // a prefix as it reads (ip_in_prefix)
    std::string addr_string() const;
    std::string to_string() const; // the form written to the whitelist file
    std::string to_quoted_string() const;
    bool addr_eq(const IPAnyNetwork &other) const; // same family and address, prefix ignored
    bool operator==(const IPAnyNetwork &other) const { return value == other.value; }

    Value value;
};

} // namespace halyx::net

#endif
