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

const char STATE_NAME[] = ".rotation";
const char TIME_FORMAT[] = "%Y-%m-%dT%H:%M:%SZ";
const time_t GRACE = 7 * 24 * 3600; /* mail in transit for a week still verifies */

std::string time_text(time_t t)
{
    char out[32];
    strftime(out, sizeof(out), TIME_FORMAT, gmtime(&t));
    return out;
}

time_t parse_time(const std::string &text)
{
    struct tm tm {
    };
    const char *end = strptime(text.c_str(), TIME_FORMAT, &tm);
    return end != nullptr && *end == '\0' ? timegm(&tm) : (time_t)-1;
}

/* State - one domain's rotation, as its state file holds it */
struct State {
    std::string domain, type, old_selector, new_selector;
    time_t started = -1, switched = -1, retired = -1;

    std::string path() const { return std::string(DK_KEYS_DIR) + "/" + domain + "/" + STATE_NAME; }
    bool exists() const { return started != -1; }
    const char *step() const
    {
        return retired != -1 ? "retired" : switched != -1 ? "switched" : "staged";
    }

    void read()
    {
        std::ifstream in(path());
        if (!in) {
            if (errno == ENOENT) return;
            throw Problem("cannot read " + errno_text(path()));
        }
        std::string line;
        for (int n = 1; std::getline(in, line); n++) {
            std::istringstream words(line.substr(0, line.find('#')));
            std::string name, value;
            if (!(words >> name)) continue;
            words >> value;
            if (name == "type" && (value == "rsa" || value == "ed25519"))
                type = value;
            else if (name == "old" && valid_name(value))
                old_selector = value;
            else if (name == "new" && valid_name(value))
                new_selector = value;
            else if (name == "started" && (started = parse_time(value)) != -1)
                continue;
            else if (name == "switched" && (switched = parse_time(value)) != -1)
                continue;
            else if (name == "retired" && (retired = parse_time(value)) != -1)
                continue;
            else
                throw Problem(path() + ":" + std::to_string(n) + ": not understood: '" + line +
                              "' (repair the line, or remove the file to forget the rotation)");
        }
        if (started == -1 || type.empty() || old_selector.empty() || new_selector.empty())
            throw Problem(path() + ": incomplete (type, old, new and started are needed)");
    }

    void write() const
    {
        std::ostringstream out;
        out << "# keyseal-admin rotate: the key rotation of " << domain << "\n"
            << "type " << type << "\nold " << old_selector << "\nnew " << new_selector
            << "\nstarted " << time_text(started) << "\n";
        if (switched != -1) out << "switched " << time_text(switched) << "\n";
        if (retired != -1) out << "retired " << time_text(retired) << "\n";
        if (replace_file(path(), out.str()) != 0)
            throw Problem("cannot write " + errno_text(path()));
    }
};

State load_state(const std::string &domain)
{
    State s;
    s.domain = domain;
    s.read();
    return s;
}

/* Milter - keyseal-milter as installed: its settings, with the selector map they name */
struct Milter {
    bool installed = false;
    keyseal_milter::Config config;
    std::string map_path;

    Milter()
    {
        installed = milter_installed();
        if (!installed) return;
        try {
            config = keyseal_milter::load(MILTER_CONF_PATH);
        } catch (const keyseal_milter::ConfigError &e) {
            throw Problem(std::string(e.what()) + ": keyseal-milter --check-config names it");
        }
        map_path = config.selector_map;
    }

    /* selectors - what the domain signs with, as keyseal-milter reads its settings */
    std::vector<std::string> selectors(const std::string &domain) const
    {
        return config.selectors_for(domain);
    }

    /* switch_selector - the domain's line with old replaced by now (a new line when the
     * domain had none), written atomically */
    void switch_selector(const std::string &domain, const std::string &old, const std::string &now)
    {
        auto sels = selectors(domain);
        std::replace(sels.begin(), sels.end(), old, now);
        if (keyseal_milter::set_selectors(map_path, domain, sels) != 0)
            throw Problem("cannot write " + errno_text(map_path));
    }

    /* reload - keyseal-milter told to read its map again: "" when done, else why not */
    std::string reload() const { return keyseal_milter::reload_milter(config.pid_file); }
};

/* key_of - the key file's key, or null when it cannot be read */
Pkey key_of(const std::string &domain, const std::string &selector)
{
    std::string text;
    if (read_key_text(key_path(domain, selector), text) != DK_KEY_OK) return nullptr;
    return load_key(text);
}

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
    if (selector.empty()) {
        char day[16];
        time_t now = time(nullptr);
        strftime(day, sizeof(day), "s%Y%m%d", gmtime(&now));
        selector = day;
        for (char c = 'b'; taken(dir, selector, used); c++) {
            if (c > 'z') throw Problem("every selector of " + std::string(day) + "[b-z] is taken");
            selector = std::string(day) + c;
        }
    } else {
        check_names(domain, selector);
        if (taken(dir, selector, used))
            throw Problem("the selector " + selector + " of " + domain +
                          " is in use or was used: choose another, or leave --selector out");
    }
    Pkey key = generate_key(new_type, 2048);
    write_key(key.get(), key_path(domain, selector), gid);
    s = State{};
    s.domain = domain;
    s.type = new_type;
    s.old_selector = old;
    s.new_selector = selector;
    s.started = time(nullptr);
    try {
        s.write();
    } catch (const Problem &) {
        unlink(key_path(domain, selector).c_str());
        throw;
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
    /* the one gate of publish and switch, asked once: switch never waits by itself */
    Findings report;
    auto servers = wait_served(name, key.get(), zone_servers(domain, given, zone), 0, report);
    std::string stale = lagging(servers);
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
    if (!kept.empty())
        fprintf(stderr, "moved the old key aside as %s\n", kept.c_str());
    else
        fprintf(stderr, "there was no key file %s to move aside\n",
                key_path(domain, s.old_selector).c_str());
    fprintf(stderr, "delete this DNS record from the zone of %s:\n", domain.c_str());
    printf("%s._domainkey.%s. IN TXT\n", s.old_selector.c_str(), domain.c_str());
    return EXIT_OK;
}

} // namespace keyseal_admin
