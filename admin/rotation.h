/*
 * rotation - one domain's key rotation as recorded beside its keys, and keyseal-milter's
 * selector map as the rotation switches it: what rotate (by hand) and rotate auto share.
 *
 * Return convention: a state file or map that cannot be read or written throws Problem with
 * one line naming the file; nothing here prints or ends the process.  Values are the caller's.
 */
#ifndef KEYSEAL_ROTATION_H
#define KEYSEAL_ROTATION_H

#include "admin/admin.h"
#include "admin/files.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "milter/milter_conf.h"
#include "milter/selector_map.h"

#include "dkim/dk_key.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

const char STATE_NAME[] = ".rotation";
const char TIME_FORMAT[] = "%Y-%m-%dT%H:%M:%SZ";
const time_t GRACE = 7 * 24 * 3600; /* mail in transit for a week still verifies */

inline std::string time_text(time_t t)
{
    char out[32];
    strftime(out, sizeof(out), TIME_FORMAT, gmtime(&t));
    return out;
}

inline time_t parse_time(const std::string &text)
{
    struct tm tm {
    };
    const char *end = strptime(text.c_str(), TIME_FORMAT, &tm);
    return end != nullptr && *end == '\0' ? timegm(&tm) : (time_t)-1;
}

/* NO_SELECTOR - the old selector of a domain that had no key before it was delegated */
const char NO_SELECTOR[] = "-";

/* State - one domain's rotation, as its state file holds it.  Beside the lines rotate has
 * always written (see rotate.cc), those of a rotation that changes the DNS itself:
 *   delegated ZONE               the domain's selectors are CNAMEs into the hoster's ZONE
 *   published|withdrawn TIME     the new record published, the old one withdrawn
 *   pending STEP TIME            STEP (publish, switch, withdraw) begun and not yet recorded;
 *                                reload: switched in the map, keyseal-milter not yet reloaded
 *                                as done: a run that finds it takes the step again, as each
 *                                step is one that changes nothing when taken twice */
struct State {
    std::string domain, type, old_selector, new_selector;
    time_t started = -1, switched = -1, retired = -1;
    std::string delegated, pending;
    time_t published = -1, withdrawn = -1, pending_since = -1;

    /* staged - a rotation started now: a new key of type under selector replaces old */
    static State staged(const std::string &domain, const std::string &type, const std::string &old,
                        const std::string &selector, const std::string &delegated)
    {
        State s;
        s.domain = domain;
        s.type = type;
        s.old_selector = old;
        s.new_selector = selector;
        s.delegated = delegated;
        s.started = time(nullptr);
        return s;
    }

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
            std::string name, value, since;
            if (!(words >> name)) continue;
            words >> value;
            if (name == "type" && (value == "rsa" || value == "ed25519"))
                type = value;
            else if (name == "old" && (valid_name(value) || value == NO_SELECTOR))
                old_selector = value;
            else if (name == "new" && valid_name(value))
                new_selector = value;
            else if (name == "started" && (started = parse_time(value)) != -1)
                continue;
            else if (name == "switched" && (switched = parse_time(value)) != -1)
                continue;
            else if (name == "retired" && (retired = parse_time(value)) != -1)
                continue;
            else if (name == "published" && (published = parse_time(value)) != -1)
                continue;
            else if (name == "withdrawn" && (withdrawn = parse_time(value)) != -1)
                continue;
            else if (name == "delegated" && valid_name(value))
                delegated = value;
            else if (name == "pending" &&
                     (value == "publish" || value == "switch" || value == "withdraw" ||
                      value == "reload") &&
                     (words >> since) && (pending_since = parse_time(since)) != -1)
                pending = value;
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
        if (!delegated.empty()) out << "delegated " << delegated << "\n";
        if (published != -1) out << "published " << time_text(published) << "\n";
        if (withdrawn != -1) out << "withdrawn " << time_text(withdrawn) << "\n";
        if (!pending.empty())
            out << "pending " << pending << " " << time_text(pending_since) << "\n";
        if (replace_file(path(), out.str()) != 0)
            throw Problem("cannot write " + errno_text(path()));
    }
};

inline State load_state(const std::string &domain)
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
        if (old == NO_SELECTOR) sels = {now}; /* it signed with no key of its own before */
        if (keyseal_milter::set_selectors(map_path, domain, sels) != 0)
            throw Problem("cannot write " + errno_text(map_path));
    }

    /* reload - keyseal-milter told to read its map again: "" when done, else why not */
    std::string reload() const { return keyseal_milter::reload_milter(config.pid_file); }
};

/* key_of - the key file's key, or null when it cannot be read */
inline Pkey key_of(const std::string &domain, const std::string &selector)
{
    std::string text;
    if (read_key_text(key_path(domain, selector), text) != DK_KEY_OK) return nullptr;
    return load_key(text);
}
/* dated_selector - sYYYYMMDD of today, or sYYYYMMDDb ... z: a name no key of dir (nor a kept
 * one) has and no selector in used is; throws Problem when all are taken */
std::string dated_selector(const std::string &dir, const std::vector<std::string> &used);

/* rotate_auto.cc's parts of the steps by hand, for a domain whose records keyseal can update
 * (its zone in dns.conf, or a delegated domain) */
/* other_delegated - the fixed selector of a delegated domain that is not old */
std::string other_delegated(const std::string &old);
/* publish_new - the new key's record published: what was done, "" when its zone is not one
 * keyseal can update; throws Problem when the update is refused */
std::string publish_new(State &s, EVP_PKEY *key);
/* withdraw_old - the old selector's record withdrawn: what was done, "" when its zone is not
 * one keyseal can update; throws Problem when the update is refused */
std::string withdraw_old(State &s);
/* switch_gate - for a delegated domain: "" when the hoster's servers serve key, the owner's
 * CNAME leads there and the resolver answers it; else why not */
std::string switch_gate(const State &s, EVP_PKEY *key);

} // namespace keyseal_admin

#endif
