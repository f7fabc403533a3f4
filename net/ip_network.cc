#include "net/ip_network.hpp"

#include "net/ip_util.h"

#include <arpa/inet.h>
#include <boost/asio/ip/address.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/socket.h>

namespace halyx::net
{
namespace
{

namespace Util
{

/* ASCIIToNumeric - strict decimal: blanks around, an optional '+', no overflow; out untouched on
 * failure */
template <typename T> bool ASCIIToNumeric(const std::string &text, T &out)
{
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    size_t i = 0, n = text.size();
    if (n == 0) return false;
    while (i < n && blank(text[i]))
        i++;
    if (i == n || text[i] == '-') return false;
    if (text[i] == '+') {
        if (++i == n) return false;
        while (i < n && blank(text[i]))
            i++;
        if (i == n) {
            out = 0;
            return true;
        }
    }
    const T max = std::numeric_limits<T>::max();
    T value = 0;
    for (; i < n && text[i] >= '0' && text[i] <= '9'; i++) {
        T digit = (T)(text[i] - '0');
        if ((max - digit) / 10 < value) {
            errno = ERANGE;
            return false;
        }
        value = (T)(value * 10 + digit);
    }
    if (i < n) {
        if (!isspace((unsigned char)text[i])) return false;
        for (; i < n; i++)
            if (!blank(text[i])) return false;
    }
    out = value;
    return true;
}

} // namespace Util

/* parseAddress - one whitelist word; what is not an address becomes a host name */
IPAnyNetwork parseAddress(const std::string &text)
{
    std::string prefix_text = "0", host = text;
    size_t slash = text.find('/');
    if (slash != std::string::npos) {
        prefix_text = text.substr(slash + 1);
        host = text.substr(0, slash);
    }
    if (!host.empty() && host.find(':') != std::string::npos && host[0] == '[') {
        host.erase(0, 1);
        if (host.empty() || host.back() != ']') return IPAnyNetwork(IPAnyNetwork::Value(text));
        host.pop_back();
    }

    boost::asio::ip::address address;
    try {
        address = boost::asio::ip::make_address(host.c_str());
    } catch (const boost::system::system_error &) {
        return IPAnyNetwork(IPAnyNetwork::Value(text));
    }
    uint16_t prefix = 0;
    Util::ASCIIToNumeric<unsigned short>(prefix_text, prefix);
    if (address.is_v6())
        return IPAnyNetwork(IPAnyNetwork::Value(IPv6Network(address.to_string(), prefix)));
    return IPAnyNetwork(IPAnyNetwork::Value(IPv4Network(address.to_string(), prefix)));
}

} // namespace

IPv4Network::IPv4Network(std::string address, uint16_t prefix)
    : address(std::move(address)), prefix(prefix)
{
}

IPv4Network::IPv4Network(std::string address, const std::string &netmask)
    : address(std::move(address)), prefix(0)
{
    struct in_addr mask = {};
    inet_pton(AF_INET, netmask.c_str(), &mask);
    uint32_t m = ntohl(mask.s_addr);
    /* only the lowest set bit counts: a non-contiguous mask is not refused */
    prefix = m == 0 ? 0 : (uint16_t)(32 - __builtin_ctz(m));
}

std::string IPv4Network::netmask() const
{
    int shift = ((32 - (int)prefix) % 32 + 32) % 32;
    struct in_addr mask;
    mask.s_addr = htonl(0xFFFFFFFFu << shift);
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &mask, buf, sizeof(buf));
    return buf;
}

std::string IPv4Network::to_string() const
{
    return address + "/" + std::to_string(prefix);
}

IPv6Network::IPv6Network(std::string address, uint16_t prefix)
    : address(std::move(address)), prefix(prefix)
{
}

std::string IPv6Network::to_string() const
{
    return address + "/" + std::to_string(prefix);
}

std::string IPv6Network::to_quoted_string() const
{
    return "[" + address + "]/" + std::to_string(prefix);
}

IPAnyNetwork::IPAnyNetwork(const Value &value) : value(value) {}

IPAnyNetwork::IPAnyNetwork(const std::string &text) : value(parseAddress(text).value) {}

IPAnyNetwork::IPAnyNetwork(const std::string &address, uint16_t prefix)
    : value(address.find(':') != std::string::npos ? Value(IPv6Network(address, prefix))
                                                   : Value(IPv4Network(address, prefix)))
{
}

int IPAnyNetwork::family() const
{
    static const int families[] = {AF_UNSPEC, AF_INET, AF_INET6};
    return families[value.which()];
}

/* network_part - address and prefix of either network alternative; no address for a host name */
static std::pair<const std::string *, uint16_t> network_part(const IPAnyNetwork::Value &value)
{
    if (const auto *v4 = boost::get<IPv4Network>(&value)) return {&v4->address, v4->prefix};
    if (const auto *v6 = boost::get<IPv6Network>(&value)) return {&v6->address, v6->prefix};
    return {nullptr, 0};
}

bool IPAnyNetwork::contains(const std::string &ip) const
{
    auto [address, prefix] = network_part(value);
    return address != nullptr && inSubnet(ip.c_str(), address->c_str(), prefix) != 0;
}

bool IPAnyNetwork::contains_prefix(const std::string &ip) const
{
    auto [address, prefix] = network_part(value);
    return address != nullptr && ip_in_prefix(ip.c_str(), address->c_str(), prefix) != 0;
}

std::string IPAnyNetwork::addr_string() const
{
    const std::string *address = network_part(value).first;
    return address != nullptr ? *address : boost::get<std::string>(value);
}

std::string IPAnyNetwork::to_string() const
{
    if (const auto *v4 = boost::get<IPv4Network>(&value)) return v4->to_string();
    if (const auto *v6 = boost::get<IPv6Network>(&value)) return v6->to_string();
    return boost::get<std::string>(value);
}

std::string IPAnyNetwork::to_quoted_string() const
{
    if (const auto *v6 = boost::get<IPv6Network>(&value)) return v6->to_quoted_string();
    return to_string();
}

bool IPAnyNetwork::addr_eq(const IPAnyNetwork &other) const
{
    int fam = family();
    if (fam != other.family()) return false;
    std::string a = addr_string(), b = other.addr_string();
    if (a == b) return true;
    if (fam == AF_UNSPEC) return false;
    /* unparsable texts leave both buffers zero and so compare equal */
    unsigned char x[16] = {}, y[16] = {};
    inet_pton(fam, a.c_str(), x);
    inet_pton(fam, b.c_str(), y);
    return memcmp(x, y, sizeof(x)) == 0;
}

} // namespace halyx::net
