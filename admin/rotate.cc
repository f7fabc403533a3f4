/*
 * rotate - a domain's key replaced without a gap in signing: a new key under a new selector
 * (start), the switch of keyseal-milter's selector map once every authoritative nameserver of
 * the zone serves the new record (switch), and the old key put aside after a grace period in
 * which mail signed before the switch still verifies (retire).
 *
 * The rotation's state lives beside the keys, in /etc/domainkeys/DOMAIN/.rotation: a name no
 * selector can have, as selectors never begin with '.'.  Its lines are "name value":
 *   type ed25519 | rsa           the new key's type
 *   old SELECTOR                 the selector that signs until the switch
 *   new SELECTOR                 the selector that signs after it
 *   started|switched|retired TIME  when each step was taken (UTC, 2026-11-23T18:00:00Z)
 */
#include "admin/rotate.h"
#include "admin/rotation.h"

#include "admin/dns.h"
#include "admin/dns_update.h"
#include "admin/files.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "milter/milter_conf.h"
#include "milter/selector_map.h"

#include "dkim/dk_key.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{
/* taken - a name that must not be the new selector: a key, a kept key, or a selector in use */
bool taken(const std::string &dir, const std::string &name, const std::vector<std::string> &used)
{
    if (std::find(used.begin(), used.end(), name) != used.end()) return true;
    std::error_code ec;
    for (const auto &f : std::filesystem::directory_iterator(dir, ec)) {
        std::string file = f.path().filename();
        if (file == name || file.rfind("." + name + ".", 0) == 0) return true;
    }
    return false;
}

/* pick_old - the selector the rotation replaces */
std::string pick_old(const std::string &domain, const Milter &milter, const std::string &of,
                     const std::string &replaces)
{
    if (!replaces.empty()) return replaces;
    std::vector<std::string> sels;
    if (milter.installed) {
        sels = milter.selectors(domain);
    } else {
        /* the handler chain's CONTEXT is out of sight: the domain's one key, if it has one */
        for (const auto &[d, s] : all_keys())
            if (d == domain) sels.push_back(s);
        if (sels.size() != 1)
            throw Problem("cannot tell which selector the chain's CONTEXT gives for " + domain +
                          ": name it with --replaces SELECTOR");
    }
    if (sels.empty())
        throw Problem("no selector signs for " + domain + ": name it with --replaces");
    if (sels.size() == 1 && of.empty()) return sels[0];
    std::string kinds;
    for (const auto &s : sels) {
        Pkey k = key_of(domain, s);
        std::string t = k ? key_type(k.get()) : "unreadable";
        if (!of.empty() && t == of) return s;
        kinds += (kinds.empty() ? "" : ", ") + s + " (" + t + ")";
    }
    if (of.empty())
        throw Usage(domain + " signs with " + kinds +
                    ": say which to rotate with --selector-of rsa or --selector-of ed25519");
    throw Problem("no selector of " + domain + " has an " + of + " key: " + kinds);
}

/* map_disagrees - the selector map signs the domain with other selectors than the rotation's
 * step says (edited by hand?): a line saying so, else "" */
std::string map_disagrees(const State &s, const Milter &milter)
{
    if (!milter.installed || s.retired != -1) return "";
    auto sels = milter.selectors(s.domain);
    const std::string &now = s.switched != -1 ? s.new_selector : s.old_selector;
    if (std::find(sels.begin(), sels.end(), now) != sels.end()) return "";
    std::string names;
    for (const auto &n : sels)
        names += (names.empty() ? "" : " ") + n;
    return s.domain + ": but the selector map " + milter.map_path + " signs it with " + names +
           ", not " + now;
}

void print_next(const State &s)
{
    if (s.retired != -1)
        printf("%s: retired %s on %s; signing with %s; delete the DNS record %s._domainkey.%s "
               "if it is still published\n",
               s.domain.c_str(), s.old_selector.c_str(), time_text(s.retired).c_str(),
               s.new_selector.c_str(), s.old_selector.c_str(), s.domain.c_str());
    else if (s.switched != -1)
        printf("%s: signing with %s (%s) since %s, replacing %s; next: keyseal-admin rotate "
               "retire %s from %s\n",
               s.domain.c_str(), s.new_selector.c_str(), s.type.c_str(),
               time_text(s.switched).c_str(), s.old_selector.c_str(), s.domain.c_str(),
               time_text(s.switched + GRACE).c_str());
    else
        printf("%s: staged %s (%s) since %s; signing with %s; next: publish the record "
               "(keyseal-admin dns %s --selector %s), then keyseal-admin rotate switch %s\n",
               s.domain.c_str(), s.new_selector.c_str(), s.type.c_str(),
               time_text(s.started).c_str(), s.old_selector.c_str(), s.domain.c_str(),
               s.new_selector.c_str(), s.domain.c_str());
}

} // namespace

std::string dated_selector(const std::string &dir, const std::vector<std::string> &used)
{
    char day[16];
    time_t now = time(nullptr);
    strftime(day, sizeof(day), "s%Y%m%d", gmtime(&now));
    std::string selector = day;
    for (char c = 'b'; taken(dir, selector, used); c++) {
        if (c > 'z') throw Problem("every selector of " + std::string(day) + "[b-z] is taken");
        selector = std::string(day) + c;
    }
    return selector;
}

int cmd_rotate_start(std::string domain, const std::string &type, std::string selector,
                     const std::string &of, const std::string &replaces)
{
    domain = canonical_domain(domain);
    State s = load_state(domain);
    if (s.exists() && s.retired == -1)
        throw Problem("a rotation of " + domain + " is under way (" + s.step() + " " +
                      s.new_selector + "): finish it first (keyseal-admin rotate status " + domain +
                      ")");
    Milter milter;
    std::string old = pick_old(domain, milter, of, replaces);
    Pkey old_key = key_of(domain, old);
    std::string new_type = !type.empty() ? type : old_key ? key_type(old_key.get()) : "rsa";
    if (new_type == "ed25519" && !milter.installed)
        throw Problem(std::string("keyseal-milter is not installed, and ") + ED25519_NOTE +
                      ": rotate to --type rsa");
    gid_t gid = key_group("");
    std::string dir = keys_dir_for(domain, gid);
    std::vector<std::string> used =
        milter.installed ? milter.selectors(domain) : std::vector<std::string>{};
    used.push_back(old);
    std::string delegated = s.delegated; /* a delegated domain alternates its fixed two */
    if (selector.empty() && !delegated.empty()) {
        selector = other_delegated(old);
    } else if (selector.empty()) {
        selector = dated_selector(dir, used);
    } else {
        check_names(domain, selector);
        if (taken(dir, selector, used))
            throw Problem("the selector " + selector + " of " + domain +
                          " is in use or was used: choose another, or leave --selector out");
    }
    Pkey key = generate_key(new_type, 2048);
    write_key(key.get(), key_path(domain, selector), gid);
    s = State::staged(domain, new_type, old, selector, delegated);
    try {
        s.write();
    } catch (const Problem &) {
        unlink(key_path(domain, selector).c_str());
        throw;
    }
    std::string published = publish_new(s, key.get());
    if (!published.empty()) {
        fprintf(stderr, "staged %s: a new %s key %s to replace %s; %s\n", domain.c_str(),
                new_type == "ed25519" ? "Ed25519" : "RSA 2048-bit",
                key_path(domain, selector).c_str(), old.c_str(), published.c_str());
        fprintf(stderr, "then: keyseal-admin rotate switch %s (it waits for every nameserver)\n",
                domain.c_str());
        return EXIT_OK;
    }
    fprintf(stderr, "staged %s: a new %s key %s to replace %s; publish this record:\n",
            domain.c_str(), new_type == "ed25519" ? "Ed25519" : "RSA 2048-bit",
            key_path(domain, selector).c_str(), old.c_str());
    if (new_type == "ed25519") fprintf(stderr, "note: %s\n", ED25519_NOTE);
    fputs(dns_record(domain, selector, key.get()).c_str(), stdout);
    fprintf(stderr, "then: keyseal-admin rotate switch %s (it waits for every nameserver)\n",
            domain.c_str());
    return EXIT_OK;
}

int cmd_rotate_status(const std::string &domain)
{
    std::vector<State> states;
    if (!domain.empty()) {
        states.push_back(load_state(canonical_domain(domain)));
        if (!states[0].exists())
            throw Problem("no rotation of " + states[0].domain +
                          ": start one with keyseal-admin rotate start " + states[0].domain);
    } else {
        std::error_code ec;
        for (const auto &d : std::filesystem::directory_iterator(DK_KEYS_DIR, ec))
            if (d.is_directory() && std::filesystem::exists(d.path() / STATE_NAME))
                states.push_back(load_state(d.path().filename()));
        std::sort(states.begin(), states.end(),
                  [](const State &a, const State &b) { return a.domain < b.domain; });
        if (states.empty()) printf("no domain is in rotation\n");
    }
    Milter milter;
    int status = EXIT_OK;
    for (const auto &s : states) {
        print_next(s);
        std::string odd = map_disagrees(s, milter);
        if (!odd.empty()) printf("warning: %s\n", odd.c_str());
        if (!odd.empty()) status = EXIT_PROBLEM;
    }
    return status;
}

int cmd_rotate_switch(std::string domain, const Nameservers &given, bool force)
{
    domain = canonical_domain(domain);
    State s = load_state(domain);
    if (!s.exists() || s.switched != -1)
        throw Problem(!s.exists() ? "no rotation of " + domain + " to switch: start one first"
                                  : domain + " switched to " + s.new_selector + " on " +
                                        time_text(s.switched) + " already");
    Pkey key = key_of(domain, s.new_selector);
    if (!key)
        throw Problem("the new key " + key_path(domain, s.new_selector) +
                      " cannot be read: keyseal-admin check " + domain + " --selector " +
                      s.new_selector);

    std::string name = s.new_selector + "._domainkey." + domain, zone;
    /* the one gate of publish and switch, asked once: switch never waits by itself; a
     * delegated domain's also asks the owner's CNAME and the resolver behind it */
    Findings report;
    std::string stale =
        !s.delegated.empty()
            ? switch_gate(s, key.get())
            : lagging(wait_served(name, key.get(), zone_servers(domain, given, zone), 0, report));
    if (!stale.empty() && !force)
        throw Problem("not switched: not every nameserver" +
                      (zone.empty() ? std::string() : " of the zone " + zone) +
                      " serves the new key at " + name + ": " + stale +
                      " (wait for them, or --force)");
    if (!stale.empty())
        report.warning("switching anyway (--force): receivers asking those servers will find "
                       "no valid key for mail signed with " +
                       s.new_selector);

    Milter milter;
    s.switched = time(nullptr);
    if (!milter.installed) {
        s.write();
        printf("the handler chain signs with the selector its CONTEXT names: put dkimsel=%s "
               "where the chain now gives dkimsel=%s for %s\n",
               s.new_selector.c_str(), s.old_selector.c_str(), domain.c_str());
        printf("then, from %s: keyseal-admin rotate retire %s\n",
               time_text(s.switched + GRACE).c_str(), domain.c_str());
        return EXIT_OK;
    }
    milter.switch_selector(domain, s.old_selector, s.new_selector);
    s.write();
    printf("switched %s from %s to %s in %s (the old key stays in place)\n", domain.c_str(),
           s.old_selector.c_str(), s.new_selector.c_str(), milter.map_path.c_str());
    std::string failed = milter.reload();
    if (!failed.empty())
        throw Problem("the selector map is switched, but keyseal-milter was not reloaded (" +
                      failed + "): run 'systemctl reload keyseal-milter'");
    printf("keyseal-milter reloaded; from %s: keyseal-admin rotate retire %s\n",
           time_text(s.switched + GRACE).c_str(), domain.c_str());
    return EXIT_OK;
}

int cmd_rotate_retire(std::string domain, bool force)
{
    domain = canonical_domain(domain);
    State s = load_state(domain);
    if (!s.exists() || s.switched == -1 || s.retired != -1)
        throw Problem(!s.exists()        ? "no rotation of " + domain
                      : s.switched == -1 ? domain + " still signs with " + s.old_selector +
                                               ": keyseal-admin rotate switch " + domain + " first"
                                         : s.old_selector + " of " + domain + " was retired on " +
                                               time_text(s.retired));
    time_t now = time(nullptr);
    if (now < s.switched + GRACE && !force)
        throw Problem("not retired: mail signed with " + s.old_selector + " before the switch on " +
                      time_text(s.switched) + " may still be in transit until " +
                      time_text(s.switched + GRACE) + " (--force retires it now)");
    Milter milter;
    if (milter.installed) {
        auto sels = milter.selectors(domain);
        if (std::find(sels.begin(), sels.end(), s.old_selector) != sels.end())
            throw Problem("the selector map " + milter.map_path + " still signs " + domain +
                          " with " + s.old_selector + ": not retired");
    }
    std::string dir = std::string(DK_KEYS_DIR) + "/" + domain;
    std::string kept = keep_aside(dir, s.old_selector, "retired");
    if (!kept.empty() && unlink(key_path(domain, s.old_selector).c_str()) != 0) {
        int err = errno;
        unlink(kept.c_str());
        errno = err;
        throw Problem("cannot move the old key aside: " +
                      errno_text(key_path(domain, s.old_selector)));
    }
    s.retired = now;
    s.write();
    std::string withdrawn = withdraw_old(s);
    if (!withdrawn.empty()) {
        if (!kept.empty()) fprintf(stderr, "moved the old key aside as %s\n", kept.c_str());
        fprintf(stderr, "%s\n", withdrawn.c_str());
        return EXIT_OK;
    }
    if (!kept.empty())
        fprintf(stderr, "moved the old key aside as %s\n", kept.c_str());
    else
        fprintf(stderr, "there was no key file %s to move aside\n",
                key_path(domain, s.old_selector).c_str());
    fprintf(stderr, "delete this DNS record from the zone of %s:\n", domain.c_str());
    printf("%s._domainkey.%s. IN TXT\n", s.old_selector.c_str(), domain.c_str());
    return EXIT_OK;
}

bool rotation_times(const std::string &domain, time_t &started, time_t &switched, time_t &retired)
{
    State s = load_state(domain);
    started = s.started, switched = s.switched, retired = s.retired;
    return s.exists();
}

} // namespace keyseal_admin
