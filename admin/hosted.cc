#include "admin/hosted.h"

#include "admin/dns_update.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "admin/postfix_conf.h"
#include "milter/milter_conf.h"

#include "dkim/dk_key.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace keyseal_admin
{

namespace
{

/* the domain lists of the mail Postfix delivers or relays for this server's domains */
const char *const DOMAIN_LISTS[] = {"virtual_mailbox_domains", "virtual_alias_domains",
                                    "relay_domains", "mydestination"};
/* the table types whose every key can be read: postmap -s lists the indexed files */
const char *const LISTABLE[] = {"hash", "btree", "lmdb",     "cdb",
                                "dbm",  "sdbm",  "texthash", "inline"};

/* canonical - name as keys are stored under it, or "" when it is no domain name */
std::string canonical(const std::string &name)
{
    std::unique_ptr<char, decltype(&free)> c(dk_domain_canonical(name.c_str()), free);
    return c ? std::string(c.get()) : "";
}

/* words_of - a file's names: white-space separated words, '#' comments left out */
bool words_of(const std::string &path, std::vector<std::string> &out)
{
    std::ifstream in(path);
    if (!in) return false;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string w; words >> w;)
            out.push_back(w);
    }
    return true;
}

/* names_of - the names one item of a domain list stands for; false, with why, when it
 * cannot be listed */
bool names_of(const std::string &item, std::vector<std::string> &names, std::string &why)
{
    if (item[0] == '/') {
        if (words_of(item, names)) return true;
        why = strerror(errno);
        return false;
    }
    size_t colon = item.find(':');
    if (colon == std::string::npos) {
        names.push_back(item);
        return true;
    }
    std::string table = item.rfind("proxy:", 0) == 0 ? item.substr(6) : item;
    std::string type = table.substr(0, table.find(':'));
    if (std::find(std::begin(LISTABLE), std::end(LISTABLE), type) == std::end(LISTABLE)) {
        why = "keyseal-admin cannot list a " + type + ": table";
        return false;
    }
    std::vector<Rule> rules;
    if (!table_rules(table, rules, why)) return false;
    for (const auto &r : rules)
        names.push_back(r.key);
    return true;
}

/* domains_of_file - file's domains, canonical, in their order and once each; Usage naming
 * the line of one that is no domain */
std::vector<std::string> domains_of_file(const std::string &file)
{
    std::ifstream in(file);
    if (!in) throw Problem("cannot read the list of domains " + file + ": " + strerror(errno));
    std::vector<std::string> out;
    std::set<std::string> seen;
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string word, more;
        if (!(words >> word)) continue;
        if (words >> more)
            throw Usage(file + ":" + std::to_string(n) + ": one domain a line, not '" + line + "'");
        std::string d;
        try {
            d = canonical_domain(word);
        } catch (const Usage &e) {
            throw Usage(file + ":" + std::to_string(n) + ": " + e.what());
        }
        if (seen.insert(d).second) out.push_back(d);
    }
    return out;
}

} // namespace

bool postfix_configured()
{
    try {
        postconf({"-h", "config_directory"});
        return true;
    } catch (const Problem &) {
        return false;
    }
}

Hosted hosted_domains()
{
    Hosted h;
    std::set<std::string> own{canonical(postconf_value("myhostname")), "localhost"};
    for (const char *setting : DOMAIN_LISTS) {
        for (const auto &item : braced_list(postconf({"-xh", setting}))) {
            if (item[0] == '!') continue; /* an exception from the list names no domain */
            std::vector<std::string> names;
            std::string why;
            if (!names_of(item, names, why)) {
                h.unlisted.push_back(std::string(setting) + ": " + item + " cannot be listed (" +
                                     why + ")");
                continue;
            }
            for (const auto &name : names) {
                std::string d = canonical(name);
                bool mine = std::string(setting) == "mydestination" &&
                            (own.count(d) != 0 || d.rfind("localhost.", 0) == 0);
                if (d.empty())
                    h.unlisted.push_back(std::string(setting) + ": '" + name +
                                         "' is a pattern, not a domain");
                else if (!mine)
                    h.domains.emplace(d, setting);
            }
        }
    }
    return h;
}

int cmd_keygen_missing(const std::string &file, const std::string &selector,
                       const std::string &type, int bits, const std::string &group)
{
    std::vector<std::string> domains;
    Hosted hosted;
    if (!file.empty()) {
        domains = domains_of_file(file);
    } else {
        hosted = hosted_domains();
        for (const auto &line : hosted.unlisted)
            fprintf(stderr,
                    "warning: %s: name its domains in a FILE: keyseal-admin keygen "
                    "--missing FILE\n",
                    line.c_str());
        for (const auto &[d, setting] : hosted.domains)
            domains.push_back(d);
    }
    if (domains.empty())
        throw Problem(file.empty() ? "Postfix's virtual_mailbox_domains, virtual_alias_domains, "
                                     "relay_domains and mydestination name no domain but the "
                                     "host's own: name the domains in a FILE"
                                   : file + " names no domain");
    if (!selector.empty()) {
        std::string first = domains[0];
        check_names(first, selector); /* Usage for a selector the handler could not be given */
    }
    gid_t gid = key_group(group);
    std::set<std::string> keyed;
    for (const auto &[d, s] : all_keys())
        keyed.insert(d);
    /* without --selector, the one keyseal-milter signs the domain with (its default one
     * when it is not installed) */
    keyseal_milter::Config milter;
    if (selector.empty() && milter_installed()) milter = milter_config();

    /* the records of zones keyseal-admin can update go out together, one UPDATE per zone,
     * after every key is written; the others are printed for the administrator */
    DnsConf dns = load_dns_conf();
    struct Made {
        std::string domain, selector, written;
        Pkey key;
        bool updatable;
    };
    std::vector<Made> keys;
    std::vector<TxtRecord> publish;
    size_t made = 0, printed = 0, failed = 0, refused = 0;
    for (const auto &d : domains) {
        if (keyed.count(d) != 0) continue;
        std::string sel = !selector.empty() ? selector : milter.selectors_for(d).front();
        Made m{d, sel, "", nullptr, false};
        try {
            m.key = new_key(d, sel, type, bits, gid, false, m.written);
        } catch (const Problem &e) {
            fprintf(stderr, "error: %s: %s\n", d.c_str(), e.what());
            failed++;
            continue;
        }
        made++;
        TxtRecord r = dkim_record(d, sel, m.key.get());
        m.updatable = dns.zone_for(r.name) != nullptr;
        if (m.updatable) publish.push_back(r);
        keys.push_back(std::move(m));
    }
    std::map<std::string, NameResult> outcome;
    if (!publish.empty()) outcome = results_by_name(update_all(dns, publish, {}, false));
    for (const auto &m : keys) {
        auto o =
            outcome.find(canonical_dns_name(dkim_record(m.domain, m.selector, m.key.get()).name));
        if (o != outcome.end() && o->second.change != Change::NOT_DONE) {
            fprintf(stderr, "wrote %s; published its record\n", m.written.c_str());
            continue;
        }
        fprintf(stderr, "wrote %s\n", m.written.c_str());
        if (o != outcome.end()) {
            fprintf(stderr, "error: %s: not published: %s\n", m.domain.c_str(),
                    o->second.text.c_str());
            refused++;
        }
        fputs(dns_record(m.domain, m.selector, m.key.get()).c_str(), stdout);
        printed++;
    }
    if (made > 0 && type == "ed25519") fprintf(stderr, "note: %s\n", ED25519_NOTE);
    fprintf(stderr, "%zu of %zu domains had no key: %zu made", made + failed, domains.size(), made);
    if (failed > 0) fprintf(stderr, ", %zu failed", failed);
    if (refused > 0) fprintf(stderr, ", %zu records not published", refused);
    if (printed > 0) fprintf(stderr, "; publish the %zu records printed", printed);
    fprintf(stderr, "\n");
    return failed > 0 || refused > 0 ? EXIT_PROBLEM : EXIT_OK;
}

} // namespace keyseal_admin
