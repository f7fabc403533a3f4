/*
 * check - the keys as receivers will see them: each key file as the handler reads it, its
 * published TXT record, and whether the two match.
 */
#include "admin/check.h"

#include "admin/access.h"
#include "admin/dns.h"
#include "admin/dns_update.h"
#include "admin/hosted.h"
#include "admin/keys.h"
#include "admin/names.h"

#include "dkim/dk_key.h"
#include "dkim/dk_sign.h"

#include <cstdio>
#include <set>

namespace keyseal_admin
{

namespace
{

/* test_key - libopendkim's own comparison of the published key with the private one */
void test_key(const std::string &domain, const std::string &selector, EVP_PKEY *key,
              const Nameservers &ns, Findings &report)
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

/* check_key - the key file, its published record and their match, for one key */
void check_key(const std::string &domain, const std::string &selector, const Nameservers &ns,
               const Access *user, Findings &report)
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

/* check_hosted - each domain Postfix hosts that has no key, and each of its domain lists
 * that cannot be read; nothing where Postfix has no configuration */
void check_hosted(const std::vector<std::pair<std::string, std::string>> &keys, Findings &report)
{
    if (!postfix_configured()) return;
    Hosted hosted = hosted_domains();
    std::set<std::string> keyed;
    for (const auto &[d, s] : keys)
        keyed.insert(d);
    for (const auto &[d, setting] : hosted.domains)
        if (keyed.count(d) == 0)
            report.warning(d + ": hosted here (Postfix's " + setting +
                           ") and has no key, so its mail goes out unsigned: keyseal-admin "
                           "keygen --missing");
    for (const auto &line : hosted.unlisted)
        report.warning(line + ": its domains are not checked for a key");
}

} // namespace

int cmd_check(std::string domain, const std::string &selector, const Nameservers &ns,
              const Access *user, bool all)
{
    if (!all) {
        check_names(domain, selector);
        Findings report;
        check_key(domain, selector, ns, user, report);
        if (user != nullptr) user->check_files(report);
        check_dns_conf(report);
        return report.exit_status();
    }
    auto found = all_keys();
    if (found.empty())
        throw Problem("no keys under " + std::string(DK_KEYS_DIR) +
                      ": make one with 'keyseal-admin keygen DOMAIN'");
    Findings summary;
    size_t bad = 0;
    for (const auto &[d, s] : found) {
        Findings one(true);
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
    check_hosted(found, summary);
    printf("%zu key%s checked, %zu with problems\n", found.size(), found.size() == 1 ? "" : "s",
           bad);
    return summary.exit_status();
}

} // namespace keyseal_admin
