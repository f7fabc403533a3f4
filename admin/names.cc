#include "admin/admin.h"

#include "dkim/dk_key.h"
#include "util/file_utils.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <ctime>
#include <sstream>

namespace keyseal_admin
{

void Report::line(const char *kind, const std::string &what) const
{
    if (quiet_) return;
    printf("%s: %s\n", kind, what.c_str());
    fflush(stdout);
}

bool valid_name(const std::string &name)
{
    /* a key's directory and file are each one path component a CONTEXT can name */
    return dk_selector_problem(name.c_str()) == nullptr;
}

std::string canonical_domain(const std::string &domain)
{
    char *c = dk_domain_canonical(domain.c_str());
    if (c == nullptr)
        throw Usage("invalid domain '" + domain +
                    "': not a host name (letters, digits, hyphens and dots) or an address "
                    "literal such as [192.0.2.1]");
    std::string out = c;
    free(c);
    return out;
}

void check_names(std::string &domain, const std::string &selector)
{
    domain = canonical_domain(domain);
    if (const char *why = dk_selector_problem(selector.c_str()))
        throw Usage("invalid selector '" + selector + "': " + why);
}

Nameservers parse_nameservers(const std::string &list)
{
    Nameservers ns;
    std::stringstream in(list);
    for (std::string ip; std::getline(in, ip, ',');) {
        in_addr a;
        if (inet_pton(AF_INET, ip.c_str(), &a) != 1)
            throw Usage("--nameserver takes IPv4 addresses separated by ',': '" + ip + "'");
        ns.push_back(ip);
    }
    return ns;
}

std::string errno_text(const std::string &path)
{
    return path + ": " + strerror(errno);
}

std::string key_path(const std::string &domain, const std::string &selector)
{
    char *p = dk_key_path(domain.c_str(), selector.c_str());
    std::string path = p;
    free(p);
    return path;
}

/* write_text - edit_file_safe's editor: the text, on the disk before the rename */
static int write_text(FILE *, FILE *out, void *data)
{
    const std::string &text = *static_cast<const std::string *>(data);
    if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0 ||
        fsync(fileno(out)) != 0)
        return -1;
    return 0;
}

int replace_file(const std::string &path, const std::string &text)
{
    return edit_file_safe(path.c_str(), write_text, const_cast<std::string *>(&text), 0);
}

std::string file_stamp()
{
    char stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%S", localtime(&now));
    return stamp;
}

} // namespace keyseal_admin
