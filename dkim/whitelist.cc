#include "dkim/whitelist.hpp"

#include "dkim/dk_key.h"
#include "dkim/whitelist.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <algorithm>
#include <syslog.h>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace halyx::mail::dkim
{

namespace
{

int writeLines(FILE *old, FILE *out, void *data)
{
    (void)old;
    for (const auto &network : *static_cast<const std::vector<net::IPAnyNetwork> *>(data))
        if (fprintf(out, "%s\n", network.to_string().c_str()) < 0) return -1;
    return 0;
}

} // namespace

Whitelist::Whitelist() : Whitelist(std::filesystem::path(DK_WHITELIST_PATH)) {}

Whitelist::Whitelist(const std::filesystem::path &path) : path(path)
{
    load();
}

void Whitelist::load()
{
    networks.clear();
    std::ifstream in(path);
    for (std::string word; in >> word;)
        networks.emplace_back(word);
}

bool Whitelist::check(const std::string &ip) const
{
    return find(ip) >= 0;
}

long Whitelist::find(const std::string &ip) const
{
    auto it = std::find_if(networks.begin(), networks.end(),
                           [&](const net::IPAnyNetwork &n) { return n.contains(ip); });
    return it == networks.end() ? -1 : it - networks.begin();
}

void Whitelist::addNetwork(const std::string &address, uint16_t prefix)
{
    net::IPAnyNetwork network(address, prefix);
    if (std::find(networks.begin(), networks.end(), network) != networks.end()) return;
    putNetwork(network);
    save();
}

void Whitelist::putNetwork(const net::IPAnyNetwork &network)
{
    std::erase_if(networks, [&](const net::IPAnyNetwork &n) { return n.addr_eq(network); });
    networks.push_back(network);
}

void Whitelist::removeNetwork(const std::string &text)
{
    net::IPAnyNetwork gone(text);
    if (std::erase_if(networks, [&](const net::IPAnyNetwork &n) { return n.addr_eq(gone); }) > 0)
        save();
}

void Whitelist::save() const
{
    std::filesystem::path parent = path.parent_path();
    if (!parent.empty() && make_dir_p(parent.c_str(), 0, 0, 0755) != 0) {
        halyx_log(LOG_ERR, "Unable to create directory %s: %s", parent.c_str(), strerror(errno));
        return;
    }
    if (edit_file_safe(path.c_str(), writeLines, (void *)&networks, 0) != 0)
        halyx_log(LOG_ERR, "Unable to write DKIM sign whitelist %s: %s", path.c_str(),
                  strerror(errno));
}

} // namespace halyx::mail::dkim

extern "C" bool dkim_whitelist_contains(const char *ip)
{
    try {
        return halyx::mail::dkim::Whitelist().check(ip);
    } catch (...) {
        halyx_log(LOG_ERR, "Unable to check DKIM sign whitelist for %s", ip);
        return false;
    }
}
