#include "admin/admin.h"
#include "admin/dns_update.h"

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

namespace
{

/* test_key - libopendkim's own comparison of the published key with the private one */
void test_key(const std::string &domain, const std::string &selector, EVP_PKEY *key,
              const Nameservers &ns, Report &report)
{
    DkimLibrary lib(ns, 0);
    std::string pem = key_pem(key);
    char err[256] = "";
    int rc = dkim_test_key(lib.get(), (char *)selector.c_str(), (char *)domain.c_str(), pem.data(),
                           pem.size(), nullptr, err, sizeof(err));
    OPENSSL_cleanse(pem.data(), pem.size());
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

/* check_key - the key file, its published record and their match, for one key */
static void check_key(const std::string &domain, const std::string &selector, const Nameservers &ns,
                      const Access *user, Report &report)
{
    std::string path = key_path(domain, selector);
    Pkey key = inspect_key(path, report);
    if (user != nullptr) user->check_key(path, report);

    std::string name = selector + "._domainkey." + domain;
    std::vector<std::string> records;
    try {
        records = lookup_txt(name, ns);
    } catch (const Problem &e) {
        report.error(std::string(e.what()) + ": check the nameservers (--nameserver names them)");
        return;
    }
    if (records.empty()) {
        report.error("no TXT record at " + name + ": publish the record that 'keyseal-admin dns " +
                     domain + " --selector " + selector + "' prints");
        return;
    }
    if (records.size() > 1)
        report.error(std::to_string(records.size()) + " TXT records at " + name +
                     ": receivers need exactly one; remove all but the one 'keyseal-admin dns " +
                     domain + " --selector " + selector + "' prints");
    auto t = record_tags(records[0]);
    report.ok("TXT record at " + name);
    if (t.count("v") && t["v"] != "DKIM1") report.error("the record's v= is not DKIM1");
    /* a record without k= is an RSA key's */
    std::string k = t.count("k") ? t["k"] : "rsa", want = key ? key_type(key.get()) : k;
    bool same_type = k == want;
    if (k != "rsa" && k != "ed25519")
        report.error("the record's k= is neither rsa nor ed25519: " + k);
    else if (!same_type)
        report.error("the record's k= is " + k + " but the private key is " + want +
                     ": publish the record that 'keyseal-admin dns " + domain + " --selector " +
                     selector + "' prints");
    if (t["p"].empty()) report.error("the record has no public key (empty or missing p=): revoked");
    if (t.count("t") && t["t"].find('y') != std::string::npos)
        report.warning("the record is in testing mode (t=y): receivers may ignore failures");
    if (!key || t["p"].empty() || !same_type) return;
    if (want == "rsa")
        test_key(domain, selector, key.get(), ns, report);
    else if (record_matches(t["p"], key.get()))
        report.ok("the published public key matches the private key");
    else
        report.error("the published public key does not match the private key: publish the "
                     "record that 'keyseal-admin dns " +
                     domain + " --selector " + selector + "' prints");
}

/* keys - every DOMAIN/SELECTOR under the keys directory whose names the handler could be
 * given; others (the whitelist, kept replaced keys, dot files) are not keys */
std::vector<std::pair<std::string, std::string>> all_keys()
{
    std::vector<std::pair<std::string, std::string>> out;
    std::error_code ec;
    for (const auto &d : std::filesystem::directory_iterator(DK_KEYS_DIR, ec)) {
        if (!d.is_directory() || !valid_name(d.path().filename())) continue;
        for (const auto &k : std::filesystem::directory_iterator(d.path(), ec))
            if (!k.is_directory() && valid_name(k.path().filename()))
                out.emplace_back(d.path().filename(), k.path().filename());
    }
    if (ec) throw Problem("cannot list the keys in " + errno_text(DK_KEYS_DIR));
    std::sort(out.begin(), out.end());
    return out;
}

int cmd_check(std::string domain, const std::string &selector, const Nameservers &ns,
              const Access *user, bool all)
{
    if (!all) {
        check_names(domain, selector);
        Report report;
        check_key(domain, selector, ns, user, report);
        if (user != nullptr) user->check_files(report);
        check_dns_conf(report);
        return report.exit_status();
    }
    auto found = all_keys();
    if (found.empty())
        throw Problem("no keys under " + std::string(DK_KEYS_DIR) +
                      ": make one with 'keyseal-admin keygen DOMAIN'");
    Report summary;
    size_t bad = 0;
    for (const auto &[d, s] : found) {
        Report one(true);
        check_key(d, s, ns, user, one);
        std::string name = d + "/" + s;
        bad += one.errors > 0;
        if (one.errors > 0)
            summary.error(name + ": " + one.first_error +
                          (one.errors > 1
                               ? " (and " + std::to_string(one.errors - 1) +
                                     " more: keyseal-admin check " + d + " --selector " + s + ")"
                               : ""));
        else if (!one.first_warning.empty())
            summary.warning(name + ": " + one.first_warning);
        else
            summary.ok(name);
    }
    if (user != nullptr) user->check_files(summary);
    check_dns_conf(summary);
    printf("%zu key%s checked, %zu with problems\n", found.size(), found.size() == 1 ? "" : "s",
           bad);
    return summary.exit_status();
}

} // namespace keyseal_admin
