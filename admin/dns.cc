#include "admin/admin.h"

#include "dkim/dk_sign.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <map>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sstream>

namespace keyseal_admin
{

namespace
{

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

/* tags - a DKIM key record's tag=value list; the value trimmed of blanks */
std::map<std::string, std::string> tags(const std::string &record)
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

/* test_key - libopendkim's own comparison of the published key with the private one */
void test_key(const std::string &domain, const std::string &selector, EVP_PKEY *key,
              const Nameservers &ns, Report &report)
{
    DKIM_LIB *lib = dkim_library(ns, 0);
    std::string pem = key_pem(key);
    char err[256] = "";
    int rc = dkim_test_key(lib, (char *)selector.c_str(), (char *)domain.c_str(), pem.data(),
                           pem.size(), nullptr, err, sizeof(err));
    OPENSSL_cleanse(pem.data(), pem.size());
    dkim_close(lib);
    if (rc == 0)
        report.ok("the published public key matches the private key");
    else if (rc == 1)
        report.error("the published public key does not match the private key: publish the "
                     "record that 'keyseal-admin dns " +
                     domain + " --selector " + selector + "' prints");
    else
        report.error(std::string("the DKIM library could not test the key: ") + err);
}

} // namespace

DKIM_LIB *dkim_library(const Nameservers &ns, unsigned int flags)
{
    DKIM_LIB *lib = dkim_init(nullptr, nullptr);
    if (lib == nullptr) throw Problem("cannot start the DKIM library");
    if (flags != 0) dkim_options(lib, DKIM_OP_SETOPT, DKIM_OPTS_FLAGS, &flags, sizeof(flags));
    std::string list;
    for (const auto &ip : ns)
        list += (list.empty() ? "" : ",") + ip;
    if (!list.empty() && dkim_dns_nslist(lib, list.c_str()) != DKIM_DNS_SUCCESS) {
        dkim_close(lib);
        throw Problem("the DKIM library refuses the nameservers " + list);
    }
    return lib;
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

int cmd_check(const std::string &domain, const std::string &selector, const Nameservers &ns)
{
    check_names(domain, selector);
    Report report;
    Pkey key = inspect_key(key_path(domain, selector), report);

    std::string name = selector + "._domainkey." + domain;
    std::vector<std::string> records;
    try {
        records = lookup_txt(name, ns);
    } catch (const Problem &e) {
        report.error(e.what());
        return report.exit_status();
    }
    if (records.empty()) {
        report.error("no TXT record at " + name + ": publish the record that 'keyseal-admin dns " +
                     domain + " --selector " + selector + "' prints");
        return report.exit_status();
    }
    if (records.size() > 1)
        report.error(std::to_string(records.size()) + " TXT records at " + name +
                     ": receivers need exactly one");
    auto t = tags(records[0]);
    report.ok("TXT record at " + name);
    if (t.count("v") && t["v"] != "DKIM1") report.error("the record's v= is not DKIM1");
    if (t.count("k") && t["k"] != "rsa") report.error("the record's k= is not rsa: " + t["k"]);
    if (t["p"].empty()) report.error("the record has no public key (empty or missing p=): revoked");
    if (t.count("t") && t["t"].find('y') != std::string::npos)
        report.warning("the record is in testing mode (t=y): receivers may ignore failures");
    if (key && !t["p"].empty()) test_key(domain, selector, key.get(), ns, report);
    return report.exit_status();
}

} // namespace keyseal_admin
