#include "admin/rotate_auto.h"

#include "admin/dns_update.h"
#include "admin/rotation.h"

#include <cctype>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <ldns/ldns.h>
#include <map>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>

namespace keyseal_admin
{

/* ks1 and ks2: short, fixed, and never a name rotate start makes (sYYYYMMDD), so a delegated
 * domain's selectors cannot meet the dated ones of its past */
const char *const DELEGATED_SELECTORS[2] = {"ks1", "ks2"};

std::string delegated_target(const std::string &domain, const std::string &selector,
                             const std::string &zone)
{
    return selector + "." + domain + "." + zone;
}

namespace
{

const char LOCK_NAME[] = ".rotate-auto.lock";
const time_t DAY = 24 * 3600;

std::string owner_name(const std::string &domain, const std::string &selector)
{
    return selector + "._domainkey." + domain;
}

/* record_name - where the state's domain keeps selector's record: its own zone, or the
 * hoster's for a delegated domain */
std::string record_name(const State &s, const std::string &selector)
{
    return s.delegated.empty() ? owner_name(s.domain, selector)
                               : delegated_target(s.domain, selector, s.delegated);
}

/* cname_at - the CNAME at name as ip answers it without recursion, or as the system's
 * resolver (or ns) answers it when ip is "": its target, "" when there is none; throws
 * Problem when no answer comes */
std::string cname_at(const std::string &name, const std::string &ip, const Nameservers &ns = {})
{
    ldns_resolver *r = nullptr;
    if (ip.empty() && ns.empty()) {
        if (ldns_resolver_new_frm_file(&r, nullptr) != LDNS_STATUS_OK)
            throw Problem("cannot read the resolver's settings (/etc/resolv.conf)");
    } else {
        r = ldns_resolver_new();
        for (const auto &a : ip.empty() ? ns : Nameservers{ip}) {
            ldns_rdf *addr = ldns_rdf_new_frm_str(LDNS_RDF_TYPE_A, a.c_str());
            if (addr != nullptr) ldns_resolver_push_nameserver(r, addr);
            ldns_rdf_deep_free(addr);
        }
        ldns_resolver_set_recursive(r, ip.empty());
    }
    ldns_resolver_set_retry(r, 2);
    ldns_rdf *dname = ldns_dname_new_frm_str(name.c_str());
    ldns_pkt *p = dname == nullptr
                      ? nullptr
                      : ldns_resolver_query(r, dname, LDNS_RR_TYPE_CNAME, LDNS_RR_CLASS_IN,
                                            ip.empty() ? LDNS_RD : 0);
    std::string target;
    bool answered = p != nullptr && (ldns_pkt_get_rcode(p) == LDNS_RCODE_NOERROR ||
                                     ldns_pkt_get_rcode(p) == LDNS_RCODE_NXDOMAIN);
    if (answered) {
        ldns_rr_list *l = ldns_pkt_rr_list_by_type(p, LDNS_RR_TYPE_CNAME, LDNS_SECTION_ANSWER);
        if (l != nullptr && ldns_rr_list_rr_count(l) > 0) {
            char *t = ldns_rdf2str(ldns_rr_rdf(ldns_rr_list_rr(l, 0), 0));
            target = canonical_dns_name(t != nullptr ? t : "");
            free(t);
        }
        ldns_rr_list_deep_free(l);
    }
    ldns_pkt_free(p);
    ldns_rdf_deep_free(dname);
    ldns_resolver_deep_free(r);
    if (!answered)
        throw Problem((ip.empty() ? std::string("the resolver") : ip) + " did not answer for " +
                      name);
    return target;
}

/* Gate - whether receivers find the key at a selector: "" when every one does; person when
 * it is one only a person can mend (a CNAME the owner must publish or correct) */
struct Gate {
    std::string why;
    bool person = false;
};

/* cname_gate - the owner's CNAME for selector, as each authoritative server of the domain's
 * zone answers it */
Gate cname_gate(const std::string &domain, const std::string &selector, const std::string &zone)
{
    std::string owner = owner_name(domain, selector),
                target = delegated_target(domain, selector, zone);
    std::string z;
    for (const auto &server : zone_servers(domain, {}, z)) {
        if (server.ip.empty()) continue;
        std::string at = cname_at(owner, server.ip);
        if (at.empty())
            return {"the owner's CNAME " + owner + " is missing (at " + server.host + ")", true};
        if (at != target)
            return {"the owner's CNAME " + owner + " points to " + at + ", not " + target +
                        " (at " + server.host + ")",
                    true};
    }
    return {};
}

/* gate - every authoritative server serves key at selector's record, and for a delegated
 * domain the owner's CNAME leads there and the resolver answers the key through it */
Gate gate(const State &s, const std::string &selector, EVP_PKEY *key)
{
    try {
        /* the owner's CNAME first: what only a person can mend is said before a lag */
        if (!s.delegated.empty()) {
            Gate g = cname_gate(s.domain, selector, s.delegated);
            if (!g.why.empty()) return g;
        }
        std::string name = record_name(s, selector), zone;
        /* the servers of the zone holding the record: the hoster's, or the domain's */
        const std::string &in = s.delegated.empty() ? s.domain : s.delegated;
        for (const auto &a : serves(name, key, zone_servers(in, {}, zone)))
            if (!a.ok()) return {a.host + (a.ip.empty() ? "" : " (" + a.ip + ")") + " " + a.why};
        if (s.delegated.empty()) return {};
        std::string owner = owner_name(s.domain, selector);
        auto records = lookup_txt(owner, {});
        if (records.size() != 1 || !record_matches(record_tags(records[0])["p"], key))
            return {"the resolver does not yet answer the key at " + owner};
        return {};
    } catch (const Problem &e) {
        return {e.what()};
    }
}

/* Lock - one rotate auto at a time: the second refuses at once rather than take a step the
 * first is taking */
struct Lock {
    int fd = -1;
    Lock()
    {
        std::string path = std::string(DK_KEYS_DIR) + "/" + LOCK_NAME;
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) throw Problem("cannot open the lock " + errno_text(path));
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            char pid[32] = "";
            ssize_t n = pread(fd, pid, sizeof(pid) - 1, 0);
            pid[n > 0 ? n : 0] = '\0';
            std::string who =
                pid[0] != '\0' ? " (pid " + std::string(pid, strcspn(pid, "\n")) + ")" : "";
            close(fd);
            throw Problem("refused: another rotate auto" + who + " holds " + path +
                          "; this run changed nothing");
        }
        std::string me = std::to_string(getpid()) + "\n";
        if (ftruncate(fd, 0) != 0 || pwrite(fd, me.data(), me.size(), 0) < 0) {
            /* the pid is only for the refusal's message */
        }
    }
    ~Lock() { close(fd); }
};

/* begin - the step recorded as begun before it is taken */
void begin(State &s, const char *step)
{
    s.pending = step;
    s.pending_since = time(nullptr);
    s.write();
}

/* Domain - one domain's part in a run */
struct Domain {
    State s;
    enum { IDLE, START, STAGED, RETIRE } act = IDLE;
    Pkey key;                      /* the new key (START, STAGED) */
    std::string publish, withdraw; /* record names this run updates */
    std::string line;              /* what is said of it, "" for nothing */
    bool person = false, moved = false, waiting = false;
};

/* key_age_start - whether a domain not in rotation is due, and its selector then */
std::string due_selector(const Milter &milter, const std::string &domain, const State &s,
                         time_t now, int rotate_after_days)
{
    std::vector<std::string> sels = milter.selectors(domain);
    if (!s.delegated.empty() && s.exists()) sels = {s.new_selector};
    for (const auto &sel : sels) {
        struct stat st;
        if (stat(key_path(domain, sel).c_str(), &st) != 0) continue;
        if (st.st_mtime + (time_t)rotate_after_days * DAY <= now) return sel;
    }
    return "";
}

/* plan_start - a new key for a due domain, recorded as started and to be published */
void plan_start(Domain &d, const Milter &milter, const DnsConf &conf, const std::string &old)
{
    State &s = d.s;
    std::string domain = s.domain, delegated = s.delegated;
    std::string dir = std::string(DK_KEYS_DIR) + "/" + domain;
    Pkey old_key = key_of(s.domain, old);
    std::string sel;
    if (!delegated.empty()) {
        sel = other_delegated(old);
        /* the next switch needs the owner's CNAME of the other selector: without it, no start */
        Gate g;
        try {
            g = cname_gate(s.domain, sel, delegated);
        } catch (const Problem &e) {
            g = {e.what(), false};
        }
        if (!g.why.empty()) {
            d.line = "waiting: key " + old + " is due for rotation, but " + g.why;
            d.person = g.person;
            d.waiting = true;
            return;
        }
    } else {
        auto used = milter.selectors(s.domain);
        used.push_back(old);
        sel = dated_selector(dir, used);
    }
    std::string type = old_key ? key_type(old_key.get()) : "rsa";
    d.key = generate_key(type, 2048);
    struct stat st;
    gid_t gid = stat(dir.c_str(), &st) == 0 ? st.st_gid : key_group("");
    write_key(d.key.get(), key_path(s.domain, sel), gid);
    s = State::staged(domain, type, old, sel, delegated);
    d.act = Domain::START;
    d.moved = true;
    if (conf.zone_for(record_name(s, sel)) != nullptr) {
        d.publish = record_name(s, sel);
        begin(s, "publish");
        d.line = "started " + sel + " to replace " + old + "; published at " + d.publish;
    } else {
        s.write();
        d.person = true;
        d.line = "started " + sel + " to replace " + old +
                 "; its zone is not one keyseal can update: publish the record 'keyseal-admin "
                 "dns " +
                 s.domain + " --selector " + sel + "' prints";
    }
}

/* switch_domain - the map switched to the new selector, recorded before and after */
void switch_domain(State &s, Milter &milter)
{
    begin(s, "switch");
    milter.switch_selector(s.domain, s.old_selector, s.new_selector);
    s.switched = time(nullptr);
    /* no key of its own before: nothing to put aside, nothing in transit */
    if (s.old_selector == NO_SELECTOR) s.retired = s.switched;
    /* the map says the new selector, the running keyseal-milter not until it reloads: the
     * old key stays until that is seen */
    begin(s, "reload");
}

/* reloaded - keyseal-milter reloaded since the switch was written: nothing pends */
void reloaded(State &s)
{
    if (s.pending != "reload") return;
    s.pending.clear();
    s.write();
}

/* retire_key - the old key moved aside and the retirement recorded */
void retire_key(State &s)
{
    if (s.old_selector != NO_SELECTOR) {
        std::string dir = std::string(DK_KEYS_DIR) + "/" + s.domain;
        std::string kept = keep_aside(dir, s.old_selector, "retired");
        if (!kept.empty() && unlink(key_path(s.domain, s.old_selector).c_str()) != 0)
            throw Problem("cannot move the old key aside: " +
                          errno_text(key_path(s.domain, s.old_selector)));
    }
    if (s.retired == -1) s.retired = time(nullptr);
    s.pending.clear();
    s.write();
}

/* domains - every domain of the selector map and every domain with a rotation */
std::vector<std::string> domains(const Milter &milter)
{
    std::set<std::string> out;
    for (const auto &[domain, sels] : milter.config.selectors)
        out.insert(domain);
    std::error_code ec;
    for (const auto &d : std::filesystem::directory_iterator(DK_KEYS_DIR, ec))
        if (d.is_directory() && std::filesystem::exists(d.path() / STATE_NAME))
            out.insert(d.path().filename());
    return {out.begin(), out.end()};
}

/* reload_or_say - keyseal-milter reloaded; false (with a line) when it could not be */
bool reload_or_say(const Milter &milter)
{
    std::string failed = milter.reload();
    if (failed.empty()) return true;
    printf("error: the selector map is switched, but keyseal-milter was not reloaded (%s): run "
           "'systemctl reload keyseal-milter'\n",
           failed.c_str());
    return false;
}

} // namespace

std::string other_delegated(const std::string &old)
{
    return old == DELEGATED_SELECTORS[0] ? DELEGATED_SELECTORS[1] : DELEGATED_SELECTORS[0];
}

std::string switch_gate(const State &s, EVP_PKEY *key)
{
    return gate(s, s.new_selector, key).why;
}

std::string publish_new(State &s, EVP_PKEY *key)
{
    DnsConf conf = load_dns_conf();
    std::string name = record_name(s, s.new_selector);
    const DnsZone *zone = conf.zone_for(name);
    if (zone == nullptr) return "";
    begin(s, "publish");
    TxtRecord r;
    r.name = name;
    r.strings = dkim_record_strings(key);
    r.key = key;
    UpdateResult u = update_zone(*zone, {r}, {}, false);
    if (!u.ok() || u.names.empty() || u.names[0].change == Change::NOT_DONE)
        throw Problem(
            "staged " + s.new_selector + ", but its record " + name +
            " was not published: " + (!u.ok() || u.names.empty() ? u.text : u.names[0].text) +
            " (rotate auto, or keyseal-admin dns publish, tries again)");
    s.published = time(nullptr);
    s.pending.clear();
    s.write();
    return "published its record at " + name + " (" + zone->zone + ")";
}

std::string withdraw_old(State &s)
{
    if (s.old_selector == NO_SELECTOR) return "";
    DnsConf conf = load_dns_conf();
    std::string name = record_name(s, s.old_selector);
    const DnsZone *zone = conf.zone_for(name);
    if (zone == nullptr) return "";
    begin(s, "withdraw");
    UpdateResult u = update_zone(*zone, {}, {name}, false);
    if (!u.ok() || u.names.empty() || u.names[0].change == Change::NOT_DONE)
        throw Problem(
            "retired " + s.old_selector + ", but its record " + name +
            " was not withdrawn: " + (!u.ok() || u.names.empty() ? u.text : u.names[0].text) +
            " (keyseal-admin dns withdraw " + s.domain + " " + s.old_selector + ")");
    s.withdrawn = time(nullptr);
    s.pending.clear();
    s.write();
    return "withdrew its record " + name + " (" + zone->zone + ")";
}

int cmd_rotate_auto()
{
    Milter milter;
    if (!milter.installed)
        throw Problem("rotate auto switches keyseal-milter's selector map, and keyseal-milter is "
                      "not installed");
    Lock lock;
    DnsConf conf = load_dns_conf();
    time_t now = time(nullptr);
    std::vector<Domain> all;
    for (const auto &name : domains(milter)) {
        Domain d;
        d.s.domain = name;
        try {
            d.s.read();
            if (d.s.exists() && d.s.switched == -1) {
                d.act = Domain::STAGED;
                d.key = key_of(name, d.s.new_selector);
                if (!d.key)
                    throw Problem("the new key " + key_path(name, d.s.new_selector) +
                                  " cannot be read");
                if (conf.zone_for(record_name(d.s, d.s.new_selector)) != nullptr) {
                    /* again each run: it changes nothing when the record is there, and
                     * repeats a publication a crash cut short */
                    d.publish = record_name(d.s, d.s.new_selector);
                    if (d.s.published == -1) begin(d.s, "publish");
                }
            } else if (d.s.pending == "reload") {
                d.line = "switched to " + d.s.new_selector +
                         "; keyseal-milter is reloaded before " + d.s.old_selector + " retires";
                d.waiting = true;
            } else if (d.s.exists() && d.s.retired == -1) {
                /* a domain delegated with no key of its own before has nothing in transit */
                if (now < d.s.switched + GRACE && d.s.old_selector != NO_SELECTOR) {
                    d.line = "signing with " + d.s.new_selector + "; " + d.s.old_selector +
                             " retires from " + time_text(d.s.switched + GRACE);
                    d.waiting = true;
                } else {
                    auto sels = milter.selectors(name);
                    if (std::find(sels.begin(), sels.end(), d.s.old_selector) != sels.end())
                        throw Problem("the selector map " + milter.map_path +
                                      " still signs it with " + d.s.old_selector + ": not retired");
                    d.act = Domain::RETIRE;
                    std::string old = record_name(d.s, d.s.old_selector);
                    if (d.s.old_selector != NO_SELECTOR && conf.zone_for(old) != nullptr) {
                        d.withdraw = old;
                        begin(d.s, "withdraw");
                    }
                }
            } else if (d.s.exists() && d.s.pending == "withdraw" &&
                       d.s.old_selector != NO_SELECTOR &&
                       conf.zone_for(record_name(d.s, d.s.old_selector)) != nullptr) {
                /* retired by hand while its record's withdrawal was refused or cut short:
                 * the withdrawal is taken again */
                d.act = Domain::RETIRE;
                d.withdraw = record_name(d.s, d.s.old_selector);
            } else {
                std::string old = due_selector(milter, name, d.s, now, conf.rotate_after_days);
                if (!old.empty()) plan_start(d, milter, conf, old);
            }
        } catch (const Problem &e) {
            d.line = std::string("error: ") + e.what();
            d.person = true;
        }
        all.push_back(std::move(d));
    }

    /* one UPDATE per zone for every domain of this run */
    std::vector<TxtRecord> publish;
    std::vector<std::string> withdraw;
    for (auto &d : all) {
        if (!d.publish.empty()) {
            TxtRecord r;
            r.name = d.publish;
            r.strings = dkim_record_strings(d.key.get());
            r.key = d.key.get();
            publish.push_back(r);
        }
        if (!d.withdraw.empty()) withdraw.push_back(d.withdraw);
    }
    /* one UPDATE per zone, more only where one DNS message cannot hold them all */
    std::vector<UpdateResult> updates = update_all(conf, publish, withdraw, false);
    int messages = 0;
    for (const auto &u : updates)
        messages += u.messages;
    std::map<std::string, NameResult> done = results_by_name(updates);
    auto refused = [&](Domain &d, const std::string &name) -> bool {
        auto it = done.find(canonical_dns_name(name));
        if (it != done.end() && it->second.change != Change::NOT_DONE) return false;
        d.line = "error: the update of " + name +
                 " was refused: " + (it == done.end() ? "no answer for it" : it->second.text);
        d.person = true;
        d.moved = false;
        return true;
    };

    int switched = 0;
    for (auto &d : all) {
        State &s = d.s;
        bool switch_begun = s.pending == "switch";
        try {
            if (!d.publish.empty()) {
                if (refused(d, d.publish)) continue;
                if (s.published == -1) s.published = time(nullptr);
                s.pending.clear();
                s.write();
            }
            if (d.act == Domain::STAGED) {
                /* a switch recorded as begun had passed its gate: it is finished, not asked
                 * again (the map may already sign with the new selector) */
                Gate g = switch_begun ? Gate{} : gate(s, s.new_selector, d.key.get());
                if (g.why.empty()) {
                    switch_domain(s, milter);
                    switched++;
                    d.moved = true;
                    d.line = "switched from " + s.old_selector + " to " + s.new_selector;
                } else {
                    time_t since = s.published != -1 ? s.published : s.started;
                    bool late = now - since > (time_t)conf.switch_alarm_days * DAY;
                    d.waiting = true;
                    d.person = g.person || late;
                    d.line = "waiting to switch to " + s.new_selector + ": " + g.why +
                             (late ? " (since " + time_text(since) + ", longer than " +
                                         std::to_string(conf.switch_alarm_days) + " days)"
                                   : "");
                }
            } else if (d.act == Domain::RETIRE) {
                if (!d.withdraw.empty()) {
                    if (refused(d, d.withdraw)) continue;
                    s.withdrawn = time(nullptr);
                }
                retire_key(s);
                d.moved = true;
                d.line = "retired " + s.old_selector +
                         (!d.withdraw.empty() ? "; its record " + d.withdraw + " withdrawn"
                          : s.old_selector == NO_SELECTOR
                              ? ""
                              : "; delete its record " + record_name(s, s.old_selector) +
                                    " by hand if it is still published");
            }
        } catch (const Problem &e) {
            d.line = std::string("error: ") + e.what();
            d.person = true;
        }
    }

    bool person = false;
    int moved = 0, waiting = 0;
    for (const auto &d : all) {
        if (!d.line.empty()) printf("%s: %s\n", d.s.domain.c_str(), d.line.c_str());
        person |= d.person;
        moved += d.moved;
        waiting += d.waiting;
    }
    /* switches of this run, and of a run that could not reload */
    for (const auto &d : all)
        switched += d.s.pending == "reload" && !d.moved;
    bool reloaded = switched > 0 && reload_or_say(milter);
    if (switched > 0 && !reloaded) person = true;
    for (auto &d : all)
        if (reloaded) keyseal_admin::reloaded(d.s);
    printf("rotate auto: %zu domain%s, %d moved, %d waiting, %d UPDATE message%s%s\n", all.size(),
           all.size() == 1 ? "" : "s", moved, waiting, messages, messages == 1 ? "" : "s",
           reloaded ? "; keyseal-milter reloaded" : "");
    return person ? EXIT_PROBLEM : EXIT_OK;
}

int cmd_delegate(std::string domain, int wait_seconds)
{
    domain = canonical_domain(domain);
    Lock lock; /* a rotate auto at work would write its own view of the state over ours */
    DnsConf conf = load_dns_conf();
    std::string zone = conf.delegation_zone();
    if (zone.empty())
        throw Problem("no delegation_zone in " + conf.path +
                      ": name the hoster's zone of delegated selectors there");
    const DnsZone *updatable =
        conf.zone_for(delegated_target(domain, DELEGATED_SELECTORS[0], zone));
    if (updatable == nullptr)
        throw Problem("the delegation_zone " + zone + " has no 'zone' line with its TSIG key in " +
                      conf.path);
    Milter milter;
    if (!milter.installed)
        throw Problem("a delegated domain is signed by keyseal-milter, which is not installed");
    State s = load_state(domain);
    bool again = s.exists() && s.delegated == zone && s.switched == -1;
    if (s.exists() && s.retired == -1 && !again)
        throw Problem(s.delegated == zone
                          ? domain + " is delegated to " + zone + " already"
                          : "a rotation of " + domain + " is under way (" + s.step() + " " +
                                s.new_selector + "): finish it first");
    if (!again && s.delegated == zone && s.exists())
        throw Problem(domain + " is delegated to " + zone + " already");
    const char *first = DELEGATED_SELECTORS[0];
    Pkey key;
    if (again) {
        key = key_of(domain, s.new_selector);
        if (!key) throw Problem("the key " + key_path(domain, s.new_selector) + " cannot be read");
    } else {
        for (const char *sel : DELEGATED_SELECTORS)
            if (access(key_path(domain, sel).c_str(), F_OK) == 0)
                throw Problem(domain + " has a key " + key_path(domain, sel) +
                              " of its own: the delegated selectors need those names");
        std::string old = NO_SELECTOR;
        auto it = milter.config.selectors.find(domain);
        if (it != milter.config.selectors.end() && !it->second.empty())
            old = it->second[0];
        else if (access(key_path(domain, milter.selectors(domain)[0]).c_str(), F_OK) == 0)
            old = milter.selectors(domain)[0];
        Pkey old_key = old == NO_SELECTOR ? nullptr : key_of(domain, old);
        std::string type = old_key ? key_type(old_key.get()) : "rsa";
        key = generate_key(type, 2048);
        gid_t gid = key_group("");
        keys_dir_for(domain, gid);
        write_key(key.get(), key_path(domain, first), gid);
        s = State::staged(domain, type, old, first, zone);
    }
    begin(s, "publish");
    std::vector<TxtRecord> rec{dkim_record(domain, s.new_selector, key.get())};
    rec[0].name = delegated_target(domain, s.new_selector, zone);
    UpdateResult u = update_zone(*updatable, rec, {}, false);
    if (!u.ok() || u.names.empty() || u.names[0].change == Change::NOT_DONE)
        throw Problem("not published: the update of " + zone +
                      " was refused: " + (!u.ok() || u.names.empty() ? u.text : u.names[0].text) +
                      " (keyseal-admin delegate " + domain + " again once mended)");
    s.published = time(nullptr);
    s.pending.clear();
    s.write();
    fprintf(stderr,
            "delegated %s: its key %s is published at %s; %s signs with %s until the CNAME "
            "leads there.\nthe owner of %s publishes these two records once:\n",
            domain.c_str(), s.new_selector.c_str(), rec[0].name.c_str(), domain.c_str(),
            s.old_selector == NO_SELECTOR ? "no key of its own" : s.old_selector.c_str(),
            domain.c_str());
    for (const char *sel : DELEGATED_SELECTORS)
        printf("%s. IN CNAME %s.\n", owner_name(domain, sel).c_str(),
               delegated_target(domain, sel, zone).c_str());
    Gate g;
    for (time_t end = time(nullptr) + wait_seconds;;) {
        g = gate(s, s.new_selector, key.get());
        if (g.why.empty() || time(nullptr) >= end) break;
        sleep(2);
    }
    if (!g.why.empty()) {
        fprintf(stderr,
                "not switched yet: %s; keyseal-admin check %s or rotate auto switches "
                "it once the CNAME leads to the key\n",
                g.why.c_str(), domain.c_str());
        return wait_seconds > 0 ? EXIT_PROBLEM : EXIT_OK;
    }
    switch_domain(s, milter);
    fprintf(stderr, "switched %s to %s in %s\n", domain.c_str(), s.new_selector.c_str(),
            milter.map_path.c_str());
    if (!reload_or_say(milter)) return EXIT_PROBLEM;
    reloaded(s);
    return EXIT_OK;
}

bool check_delegation(const std::string &domain, const Nameservers &ns, Findings &report)
{
    State s = load_state(domain);
    if (s.delegated.empty()) return false;
    std::string signing = s.switched != -1 ? s.new_selector : s.old_selector;
    for (const char *sel : DELEGATED_SELECTORS) {
        std::string owner = owner_name(domain, sel),
                    target = delegated_target(domain, sel, s.delegated);
        Pkey key = key_of(domain, sel);
        std::string at;
        try {
            at = cname_at(owner, "", ns);
        } catch (const Problem &e) {
            report.error(e.what());
            continue;
        }
        if (at.empty()) {
            report.error(owner + ": the owner's CNAME is missing: " + domain + "'s zone needs '" +
                         owner + ". IN CNAME " + target + ".'");
            continue;
        }
        if (at != target) {
            report.error(owner + ": the owner's CNAME points to " + at + ", not " + target);
            continue;
        }
        std::vector<std::string> records;
        try {
            records = lookup_txt(owner, ns);
        } catch (const Problem &e) {
            report.error(owner + ": CNAME in place, but " + e.what());
            continue;
        }
        bool served =
            key && records.size() == 1 && record_matches(record_tags(records[0])["p"], key.get());
        if (served)
            report.ok(owner + ": CNAME to " + target + " in place, with the key of " + sel +
                      " behind it" + (sel == signing ? " (signing)" : ""));
        else if (sel == signing || (sel == s.new_selector && s.switched == -1 && key))
            report.error(owner + ": CNAME to " + target + " in place, without the key of " + sel +
                         " behind it");
        else
            report.ok(owner + ": CNAME to " + target +
                      " in place, no key behind it (the next "
                      "rotation publishes one)");
    }
    if (s.switched == -1 && report.errors == 0) {
        Pkey key = key_of(domain, s.new_selector);
        Gate g = key ? gate(s, s.new_selector, key.get()) : Gate{"no new key", false};
        if (!g.why.empty()) {
            report.warning("not switched to " + s.new_selector + " yet: " + g.why);
        } else
            try {
                Lock lock; /* not beside a rotate auto run, which holds its own copy of the state */
                Milter milter;
                switch_domain(s, milter);
                report.ok("switched " + domain + " to " + s.new_selector + " in " +
                          milter.map_path);
                std::string failed = milter.reload();
                if (!failed.empty())
                    report.error("keyseal-milter was not reloaded: " + failed);
                else
                    reloaded(s);
            } catch (const Problem &e) {
                report.warning(std::string("not switched now: ") + e.what());
            }
    }
    return true;
}

} // namespace keyseal_admin
