/*
 * dns - DNS questions of keyseal-admin: TXT records, a zone's authoritative servers, and the
 * DKIM library's key lookups, all through one stub resolver.
 */
#include "admin/dns.h"

#include "admin/keys.h"

#include "dkim/dk_key.h"
#include "dkim/dk_sign.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <algorithm>
#include <filesystem>
#include <map>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sstream>

namespace keyseal_admin
{

/* Resolver - the system's stub resolver, asking ns when given: the one resolver of every
 * DNS question keyseal-admin asks, its own and the DKIM library's */
struct Resolver {
    struct __res_state state {
    };
    explicit Resolver(const Nameservers &ns)
    {
        if (res_ninit(&state) != 0) throw Problem("cannot initialise the resolver");
        if (ns.empty()) return;
        state.nscount = 0;
        for (const auto &ip : ns) {
            if (state.nscount == MAXNS) break;
            sockaddr_in &a = state.nsaddr_list[state.nscount++];
            a = sockaddr_in{};
            a.sin_family = AF_INET;
            a.sin_port = htons(NAMESERVER_PORT);
            inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
        }
    }
    ~Resolver() { res_nclose(&state); }
};

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

namespace
{

/* One query of the DKIM library's, answered at once: the stub resolver is synchronous */
struct Query {
    int length;
};

int query_start(void *service, int type, unsigned char *name, unsigned char *buf, size_t size,
                void **handle)
{
    auto *r = static_cast<Resolver *>(service);
    unsigned char query[NS_PACKETSZ];
    int n = res_nmkquery(&r->state, ns_o_query, (const char *)name, ns_c_in, type, nullptr, 0,
                         nullptr, query, sizeof(query));
    /* res_nsend, not res_nquery: the library reads NXDOMAIN from the reply itself */
    int length = n < 0 ? -1 : res_nsend(&r->state, query, n, buf, (int)size);
    *handle = new Query{length};
    return DKIM_DNS_SUCCESS;
}

int query_waitreply(void *, void *handle, struct timeval *, size_t *length, int *error, int *dnssec)
{
    auto *q = static_cast<Query *>(handle);
    if (dnssec != nullptr) *dnssec = DKIM_DNSSEC_UNKNOWN;
    if (error != nullptr) *error = q->length < 0 ? errno : 0;
    if (q->length < 0) return DKIM_DNS_ERROR;
    *length = (size_t)q->length;
    return DKIM_DNS_SUCCESS;
}

int query_cancel(void *, void *handle)
{
    delete static_cast<Query *>(handle);
    return DKIM_DNS_SUCCESS;
}

} // namespace

std::map<std::string, std::string> record_tags(const std::string &record)
{
    std::map<std::string, std::string> out;
    std::stringstream in(record);
    auto trim = [](std::string s) {
        s.erase(0, s.find_first_not_of(" \t\r\n"));
        s.erase(s.find_last_not_of(" \t\r\n") + 1);
        return s;
    };
    for (std::string item; std::getline(in, item, ';');) {
        size_t eq = item.find('=');
        if (eq != std::string::npos) out[trim(item.substr(0, eq))] = trim(item.substr(eq + 1));
    }
    return out;
}

bool record_matches(const std::string &p, EVP_PKEY *key)
{
    /* base64 may be split by blanks in a record; the bytes decide, not the spelling */
    std::string mine = public_key_base64(key), theirs;
    for (char c : p)
        if (!isspace((unsigned char)c)) theirs += c;
    return theirs == mine;
}

DkimLibrary::DkimLibrary(const Nameservers &ns, unsigned int flags)
    : resolver_(std::make_unique<Resolver>(ns)), lib_(dkim_init(nullptr, nullptr))
{
    if (lib_ == nullptr) throw Problem("cannot start the DKIM library");
    if (flags != 0) dkim_options(lib_, DKIM_OP_SETOPT, DKIM_OPTS_FLAGS, &flags, sizeof(flags));
    /* the library's own resolver would ask /etc/resolv.conf's servers whatever it is told */
    dkim_dns_set_init(lib_, nullptr);
    dkim_dns_set_close(lib_, nullptr);
    dkim_dns_set_query_service(lib_, resolver_.get());
    dkim_dns_set_query_start(lib_, query_start);
    dkim_dns_set_query_waitreply(lib_, query_waitreply);
    dkim_dns_set_query_cancel(lib_, query_cancel);
}

DkimLibrary::~DkimLibrary()
{
    dkim_close(lib_);
}

/* lookup_txt and authoritative_servers ask through ldns, beside the updates: dns_update.cc */

} // namespace keyseal_admin
