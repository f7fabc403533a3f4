#include "admin/whitelist.h"

#include "dkim/dk_key.h"
#include "dkim/whitelist.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace keyseal_admin
{

using halyx::mail::dkim::Whitelist;
using halyx::net::IPAnyNetwork;
using halyx::net::IPv4Network;
using halyx::net::IPv6Network;

namespace
{

struct Word {
    std::string text;
    int line;
};

/* words - the file's words as the handler's reader splits them (C-locale white space),
 * with the line each stands on; the handler itself has no use for line numbers */
std::vector<Word> words(const std::string &path)
{
    std::vector<Word> out;
    std::ifstream in(path);
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        n++;
        std::istringstream split(line);
        for (std::string w; split >> w;)
            out.push_back({w, n});
    }
    return out;
}

std::string path()
{
    return Whitelist().path.string();
}

/* trap - what the entry really admits when that differs from what the word suggests; "" if not */
std::string trap(const std::string &word, const IPAnyNetwork &n)
{
    if (n.family() == 0) return "never matches: not an address";
    std::string addr = n.addr_string();
    size_t slash = word.find('/');
    std::string prefix_text = slash == std::string::npos ? "" : word.substr(slash + 1);
    if (addr.find('%') != std::string::npos) return "never matches: an address with a zone";
    if (const auto *v4 = boost::get<IPv4Network>(&n.value)) {
        if (prefix_text.find('.') != std::string::npos)
            return "only " + addr + ": netmask notation is not understood";
        if (v4->prefix > 32) return "only " + addr + ": a prefix above 32 means the one address";
        if (v4->prefix == 0 && slash != std::string::npos && prefix_text != "0")
            return "only " + addr + ": the prefix is not a number";
        if (v4->prefix == 0) return "only " + addr;
        return "";
    }
    const auto &v6 = boost::get<IPv6Network>(n.value);
    if (v6.prefix == 0) return "admits every IPv6 client";
    if (v6.prefix > 128) return "only " + addr + ": a prefix above 128 means the one address";
    in6_addr a;
    if (inet_pton(AF_INET6, addr.c_str(), &a) == 1 && IN6_IS_ADDR_V4MAPPED(&a))
        return "never matches an IPv4 client: clients arrive as plain IPv4 addresses";
    return "";
}

/* strict - a NETWORK argument as an entry that admits exactly what it says, or Usage */
IPAnyNetwork strict(const std::string &text)
{
    IPAnyNetwork n(text);
    std::string why = trap(text, n);
    size_t slash = text.find('/');
    std::string prefix = slash == std::string::npos ? "" : text.substr(slash + 1);
    if (n.family() == 0 || why.find("never matches:") == 0)
        throw Usage("'" + text + "' is not ADDRESS or ADDRESS/PREFIX (" + why + ")");
    if (prefix.find('.') != std::string::npos)
        throw Usage("'" + text + "': netmask notation is not understood; write a prefix length");
    if (slash != std::string::npos &&
        (prefix.empty() || prefix.find_first_not_of("0123456789") != std::string::npos))
        throw Usage("'" + text + "': the prefix must be a number");
    unsigned long bits = slash == std::string::npos ? 0 : std::stoul(prefix.substr(0, 4));
    unsigned long max = n.family() == AF_INET ? 32 : 128;
    if (bits > max) throw Usage("'" + text + "': the prefix is above " + std::to_string(max));
    /* a bare address is that one address: never the prefix-0 forms */
    return IPAnyNetwork(n.addr_string(), (uint16_t)(slash == std::string::npos ? max : bits));
}

/* saved - whether the file now holds exactly the list: save() reports failure only by logging */
bool saved(const Whitelist &w)
{
    return Whitelist(w.path).networks == w.networks;
}

} // namespace

int cmd_whitelist_list()
{
    std::string file = path();
    struct stat st;
    if (stat(file.c_str(), &st) != 0) {
        printf("no whitelist file %s: no client is whitelisted\n", file.c_str());
        return EXIT_OK;
    }
    for (const auto &w : words(file)) {
        IPAnyNetwork n(w.text);
        std::string why = trap(w.text, n);
        printf("%s%s%s\n", n.to_string().c_str(), why.empty() ? "" : "\t# ", why.c_str());
    }
    return EXIT_OK;
}

int cmd_whitelist_lint()
{
    std::string file = path();
    std::vector<Word> list = words(file);
    std::vector<IPAnyNetwork> seen;
    int found = 0;
    for (const auto &w : list) {
        IPAnyNetwork n(w.text);
        std::string why = trap(w.text, n);
        for (size_t i = 0; why.empty() && i < seen.size(); i++) {
            std::string other = "line " + std::to_string(list[i].line) + " (" + list[i].text + ")";
            if (seen[i] == n)
                why = "duplicate of " + other;
            else if (seen[i].family() != 0 && seen[i].addr_eq(n))
                why = "same address as " + other + ": add and remove treat them as one entry";
        }
        seen.push_back(n);
        if (why.empty()) continue;
        printf("%s:%d: %s: %s\n", file.c_str(), w.line, w.text.c_str(), why.c_str());
        found++;
    }
    if (found == 0) printf("%s: %zu entries, all as they look\n", file.c_str(), list.size());
    return found == 0 ? EXIT_OK : EXIT_PROBLEM;
}

int cmd_whitelist_add(const std::string &text)
{
    IPAnyNetwork n = strict(text);
    const auto &net = n.value;
    Whitelist w;
    auto before = w.networks;
    std::string address = n.addr_string();
    uint16_t prefix = n.family() == AF_INET ? boost::get<IPv4Network>(net).prefix
                                            : boost::get<IPv6Network>(net).prefix;
    w.addNetwork(address, prefix);
    if (w.networks == before) {
        printf("already listed: %s (nothing written)\n", n.to_string().c_str());
        return EXIT_OK;
    }
    if (!saved(w)) throw Problem("the whitelist " + w.path.string() + " was not written");
    for (const auto &old : before)
        if (old.addr_eq(n) && !(old == n)) printf("replaced %s\n", old.to_string().c_str());
    printf("added %s to %s\n", n.to_string().c_str(), w.path.c_str());
    return EXIT_OK;
}

int cmd_whitelist_remove(const std::string &text)
{
    Whitelist w;
    auto before = w.networks;
    w.removeNetwork(text);
    if (w.networks.size() == before.size()) {
        printf("not listed: %s (nothing written)\n", text.c_str());
        return EXIT_PROBLEM;
    }
    if (!saved(w)) throw Problem("the whitelist " + w.path.string() + " was not written");
    for (const auto &old : before)
        if (std::find(w.networks.begin(), w.networks.end(), old) == w.networks.end())
            printf("removed %s\n", old.to_string().c_str());
    return EXIT_OK;
}

std::string whitelist_entry(const std::string &ip)
{
    Whitelist w;
    long i = w.find(ip);
    if (i < 0) return "";
    std::vector<Word> list = words(w.path.string());
    return "'" + list[(size_t)i].text + "' on line " + std::to_string(list[(size_t)i].line) +
           " of " + w.path.string();
}

int cmd_whitelist_check(const std::string &ip)
{
    std::string entry = whitelist_entry(ip);
    if (entry.empty()) {
        printf("no: %s is not whitelisted: its unauthenticated mail is not signed\n", ip.c_str());
        return EXIT_PROBLEM;
    }
    printf("yes: %s is admitted by %s\n", ip.c_str(), entry.c_str());
    return EXIT_OK;
}

} // namespace keyseal_admin
