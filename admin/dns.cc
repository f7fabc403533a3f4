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

std::vector<std::string> lookup_txt(const std::string &name, const Nameservers &ns)
{
    Resolver r(ns);
    unsigned char answer[NS_MAXMSG];
    int n = res_nquery(&r.state, name.c_str(), ns_c_in, ns_t_txt, answer, sizeof(answer));
    if (n < 0) {
        switch (r.state.res_h_errno) {
        case HOST_NOT_FOUND:
        case NO_DATA:
            return {};
        case TRY_AGAIN:
            throw Problem("no answer for " + name + " (server failure or time-out)");
        default:
            throw Problem("the resolver failed for " + name);
        }
    }
    ns_msg msg;
    if (ns_initparse(answer, n, &msg) != 0) throw Problem("unreadable DNS answer for " + name);
    std::vector<std::string> records;
    for (int i = 0; i < ns_msg_count(msg, ns_s_an); i++) {
        ns_rr rr;
        if (ns_parserr(&msg, ns_s_an, i, &rr) != 0 || ns_rr_type(rr) != ns_t_txt) continue;
        /* RDATA is a run of <length><bytes> strings; a record's value is all of them joined */
        std::string value;
        const unsigned char *p = ns_rr_rdata(rr), *end = p + ns_rr_rdlen(rr);
        while (p < end && p + 1 + *p <= end) {
            value.append((const char *)p + 1, *p);
            p += 1 + *p;
        }
        records.push_back(value);
    }
    return records;
}

namespace
{

/* Answer - a reply to one question, parsed by the resolver library; n < 0: no reply */
struct Answer {
    unsigned char buf[NS_MAXMSG];
    int n = -1;
    int h_errno_ = 0;
    ns_msg msg{};
};

void ask(const std::string &name, ns_type type, const Nameservers &ns, Answer &a)
{
    Resolver r(ns);
    a.n = res_nquery(&r.state, name.c_str(), ns_c_in, type, a.buf, sizeof(a.buf));
    a.h_errno_ = r.state.res_h_errno;
    if (a.n >= 0 && ns_initparse(a.buf, a.n, &a.msg) != 0)
        throw Problem("unreadable DNS answer for " + name);
}

/* names_in - the answer section's records of type, as their owner names or, for NS, their
 * target names, for A their addresses */
std::vector<std::string> names_in(Answer &a, ns_type type, bool owner)
{
    std::vector<std::string> out;
    for (int i = 0; a.n >= 0 && i < ns_msg_count(a.msg, ns_s_an); i++) {
        ns_rr rr;
        if (ns_parserr(&a.msg, ns_s_an, i, &rr) != 0 || ns_rr_type(rr) != type) continue;
        char text[NS_MAXDNAME];
        if (owner)
            out.emplace_back(ns_rr_name(rr));
        else if (type == ns_t_a && ns_rr_rdlen(rr) == 4)
            out.emplace_back(inet_ntop(AF_INET, ns_rr_rdata(rr), text, sizeof(text)));
        else if (type == ns_t_ns && ns_name_uncompress(ns_msg_base(a.msg), ns_msg_end(a.msg),
                                                       ns_rr_rdata(rr), text, sizeof(text)) >= 0)
            out.emplace_back(text);
    }
    return out;
}

bool same_name(std::string a, std::string b)
{
    for (auto *s : {&a, &b}) {
        if (!s->empty() && s->back() == '.') s->pop_back();
        for (char &c : *s)
            c = (char)tolower((unsigned char)c);
    }
    return a == b;
}

} // namespace

std::vector<NameServer> authoritative_servers(const std::string &domain, std::string &zone)
{
    /* the zone is the closest enclosing name that has an SOA record of its own */
    for (std::string name = domain;;) {
        Answer a;
        ask(name, ns_t_soa, {}, a);
        for (const auto &owner : names_in(a, ns_t_soa, true))
            if (same_name(owner, name)) zone = name;
        if (!zone.empty()) break;
        if (a.n < 0 && a.h_errno_ != HOST_NOT_FOUND && a.h_errno_ != NO_DATA)
            throw Problem("no answer for the SOA record of " + name +
                          ": name the servers with --nameserver");
        size_t dot = name.find('.');
        if (dot == std::string::npos)
            throw Problem("no zone found above " + domain + ": name the servers with --nameserver");
        name = name.substr(dot + 1);
    }
    Answer a;
    ask(zone, ns_t_ns, {}, a);
    std::vector<NameServer> out;
    for (const auto &host : names_in(a, ns_t_ns, false)) {
        Answer addr;
        ask(host, ns_t_a, {}, addr);
        auto ips = names_in(addr, ns_t_a, false);
        if (ips.empty()) out.push_back({host, ""});
        for (const auto &ip : ips)
            out.push_back({host, ip});
    }
    if (out.empty())
        throw Problem("no NS records for the zone " + zone +
                      ": name the servers with --nameserver");
    return out;
}

} // namespace keyseal_admin
