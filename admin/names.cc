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

void Report::line(const char *kind, const std::string &what)
{
    printf("%s: %s\n", kind, what.c_str());
    fflush(stdout);
}

static void check_name(const char *what, const std::string &name)
{
    const char *why = nullptr;
    if (name.empty())
        why = "it is empty";
    else if (name.find('/') != std::string::npos)
        why = "it holds '/'";
    else if (name[0] == '.')
        why = "it begins with '.'";
    for (unsigned char c : name)
        if (why == nullptr && (c <= ' ' || c == 0x7f))
            why = "it holds white space or a control byte";
    if (why != nullptr) throw Usage(std::string("invalid ") + what + " '" + name + "': " + why);
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
