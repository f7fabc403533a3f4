#include "admin/admin.h"

#include "dkim/dk_key.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace keyseal_admin
{

void Report::line(const char *kind, const std::string &what) const
{
    if (quiet_) return;
    printf("%s: %s\n", kind, what.c_str());
    fflush(stdout);
}

/* name_problem - why the handler would build a bad key path from name, or null */
static const char *name_problem(const std::string &name)
{
    if (name.empty()) return "it is empty";
    if (name.find('/') != std::string::npos) return "it holds '/'";
    if (name[0] == '.') return "it begins with '.'";
    for (unsigned char c : name)
        if (c <= ' ' || c == 0x7f) return "it holds white space or a control byte";
    return nullptr;
}

bool valid_name(const std::string &name)
{
    return name_problem(name) == nullptr;
}

static void check_name(const char *what, const std::string &name)
{
    if (const char *why = name_problem(name))
        throw Usage(std::string("invalid ") + what + " '" + name + "': " + why);
}

void check_names(const std::string &domain, const std::string &selector)
{
    check_name("domain", domain);
    check_name("selector", selector);
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

} // namespace keyseal_admin
