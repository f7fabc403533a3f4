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
#include <memory>
#include <sys/stat.h>

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

namespace
{

/* Read - the whitelist file's networks as last read, and the file as it stood then */
struct Read {
    struct stat file;
    halyx::mail::dkim::Whitelist list;
};

/* same_file - the same file, unchanged since it was read: a replaced file is another inode,
 * an edited one has another size or change time */
bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

} // namespace

/* dkim_whitelist_contains - a process asking message after message (keyseal-milter's
 * worker) reads the file again only when it changed; one that cannot be stat'ed is read
 * (and found missing) every time */
extern "C" bool dkim_whitelist_contains(const char *ip)
{
    static std::unique_ptr<Read> *kept = new std::unique_ptr<Read>; /* never torn down */
    try {
        struct stat file;
        if (stat(DK_WHITELIST_PATH, &file) != 0) {
            kept->reset();
            return halyx::mail::dkim::Whitelist().check(ip);
        }
        /* stat'ed before it is read: a change in between is seen at the next message */
        if (*kept == nullptr || !same_file((*kept)->file, file)) {
            kept->reset();
            *kept = std::make_unique<Read>(Read{file, halyx::mail::dkim::Whitelist()});
        }
        return (*kept)->list.check(ip);
    } catch (...) {
        kept->reset();
        halyx_log(LOG_ERR, "Unable to check DKIM sign whitelist for %s", ip);
        return false;
    }
}
