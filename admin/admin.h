/*
 * keyseal-admin - the administrator's command around the handler: keys, DNS records,
 * checks, the self-test, the whitelist, "why was this not signed?" and the spool.  Every rule the
 * handler applies is taken from the handler's own modules (dkim/dk_key.h and friends), never
 * restated here.
 *
 * Commands return the process's exit status: 0 success, 1 a problem found.  They
 * report through Report (one "ok:"/"warning:"/"error:" line per finding on standard
 * output) or throw Problem (one line on standard error, exit 1) or Usage (exit 2).
 * Results of OpenSSL are owned through the unique_ptr types below.
 */
#ifndef KEYSEAL_ADMIN_H
#define KEYSEAL_ADMIN_H

#include <map>
#include <memory>
#include "milter/milter_conf.h"

#include <openssl/evp.h>
#include <sys/types.h>
#include <stdexcept>
#include <string>
#include <vector>

struct dkim_lib; /* libopendkim's DKIM_LIB */

namespace keyseal_admin
{

enum Exit { EXIT_OK = 0, EXIT_PROBLEM = 1, EXIT_USAGE = 2 };

struct Problem : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct Usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* Report - findings of a check, one line each; an error makes the exit status 1.  A
 * quiet report prints nothing and keeps the first error and warning for a summary. */
class Report
{
  public:
    explicit Report(bool quiet = false) : quiet_(quiet) {}
    void ok(const std::string &what) { line("ok", what); }
    void warning(const std::string &what)
    {
        if (first_warning.empty()) first_warning = what;
        line("warning", what);
    }
    void error(const std::string &what)
    {
        if (first_error.empty()) first_error = what;
        line("error", what);
        errors++;
    }
    void note(const std::string &what) { line("note", what); }
    int exit_status() const { return errors == 0 ? EXIT_OK : EXIT_PROBLEM; }
    int errors = 0;
    std::string first_error, first_warning;

  private:
    void line(const char *kind, const std::string &what) const;
    bool quiet_;
};

/* Access - what a user (the one the mail system runs the handler as) can do with the
 * handler's files, found out by doing it in a child that took the user's identity */
class Access
{
  public:
    enum Kind { READ, READ_IF_THERE, CREATE_IN, CONNECT };
    struct Probe {
        std::string path;
        Kind kind;
    };
    explicit Access(const std::string &name); /* throws Usage for an unknown user */
    static std::string default_user();
    /* become - take the user's identity for good (in a child); _exit(127) on failure */
    void become() const;
    std::vector<int> errors(const std::vector<Probe> &probes) const; /* an errno per probe */
    void check_key(const std::string &path, Report &report) const;
    void check_files(Report &report) const; /* the whitelist and the spool directory */
    std::string user, group;
    uid_t uid;
    gid_t gid;
};

struct PkeyFree {
    void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

/* The nameservers of --nameserver (IPv4), empty for the system resolver */
using Nameservers = std::vector<std::string>;

// names.cc
/* canonical_domain - a domain argument in the form keys are stored under (lower case, no
 * trailing dot); throws Usage for a name that is not a mail domain */
std::string canonical_domain(const std::string &domain);
/* check_names - domain made canonical; refuse a selector the handler could not be given */
void check_names(std::string &domain, const std::string &selector);
/* valid_name - a name check_names accepts: a key's domain or selector */
bool valid_name(const std::string &name);
/* all_keys - every DOMAIN/SELECTOR key under the keys directory, in name order */
std::vector<std::pair<std::string, std::string>> all_keys();
Nameservers parse_nameservers(const std::string &list);
std::string errno_text(const std::string &path);
/* replace_file - text as path's whole content, through a temporary copy, fsync and a rename
 * (edit_file_safe): an existing file keeps its owner and mode, a new one is 0644.  0, or
 * -1 with errno */
int replace_file(const std::string &path, const std::string &text);
/* file_stamp - the local time as YYYYMMDDTHHMMSS, for the names of kept copies */
std::string file_stamp();
/* key_path - the handler's key path for domain and selector */
std::string key_path(const std::string &domain, const std::string &selector);

// keys.cc
/* read_key_text - the key file as the handler reads it; a DK_KEY_* status */
int read_key_text(const std::string &path, std::string &text);
/* load_key - a signing key (RSA or Ed25519) from PEM or bare base64 DER text, as the
 * handler's library takes it, or null; never prompts, and wipes text */
Pkey load_key(std::string &text);
/* key_type - the key's k= in a DKIM key record: "rsa" or "ed25519" */
std::string key_type(EVP_PKEY *key);
/* key_description - "RSA key of 2048 bits", "Ed25519 key" */
std::string key_description(EVP_PKEY *key);
/* generate_key - a new key of type ("rsa" with bits, or "ed25519"); throws Problem */
Pkey generate_key(const std::string &type, int bits);
/* public_key_base64 - the record's p=: the DER public key (RSA), the raw 32 bytes (Ed25519) */
std::string public_key_base64(EVP_PKEY *key);
std::string key_pem(EVP_PKEY *key);
/* dns_record - the zone-file lines of the key's TXT record, strings of at most 255 bytes */
std::string dns_record(const std::string &domain, const std::string &selector, EVP_PKEY *key);
/* inspect_key - findings on the key file as the handler would read it; the key or null */
Pkey inspect_key(const std::string &path, Report &report);
/* milter_installed - keyseal-milter's settings or binary (beside this program) exist */
bool milter_installed();
/* ED25519_NOTE - what an Ed25519 key means for the handler chain */
extern const char ED25519_NOTE[];
/* write_key - PEM through a temporary file beside path and a rename, mode 0640, group gid */
void write_key(EVP_PKEY *key, const std::string &path, gid_t gid);
/* key_group - the key readers' group: group by name or number, or the default ("") */
gid_t key_group(const std::string &group);
/* keys_dir_for - DK_KEYS_DIR/domain, made (0750, group gid) when missing */
std::string keys_dir_for(const std::string &domain, gid_t gid);
/* keep_aside - a hard link to dir/selector as dir/.SELECTOR.WHAT-STAMP, a name no selector
 * can have; "" when there is no such key */
std::string keep_aside(const std::string &dir, const std::string &selector, const char *what);
int cmd_keygen(std::string domain, const std::string &selector, const std::string &type, int bits,
               const std::string &group, bool force);
int cmd_dns(std::string domain, const std::string &selector);

// dns.cc
struct Resolver;
/* DkimLibrary - a libopendkim instance with these library flags whose every DNS question
 * goes through this program's resolver: to ns, or to /etc/resolv.conf's servers when
 * ns is empty.  Throws Problem when the library or the resolver cannot start. */
class DkimLibrary
{
  public:
    DkimLibrary(const Nameservers &ns, unsigned int flags);
    ~DkimLibrary();
    DkimLibrary(const DkimLibrary &) = delete;
    DkimLibrary &operator=(const DkimLibrary &) = delete;
    ::dkim_lib *get() const { return lib_; }

  private:
    std::unique_ptr<Resolver> resolver_;
    ::dkim_lib *lib_;
};
/* record_tags - a DKIM key record's tag=value list; the values trimmed of blanks */
std::map<std::string, std::string> record_tags(const std::string &record);
/* record_matches - p= (a record's public key) is key's public key */
bool record_matches(const std::string &p, EVP_PKEY *key);
/* lookup_txt - the TXT strings of each record at name, joined per record; throws Problem */
std::vector<std::string> lookup_txt(const std::string &name, const Nameservers &ns);
/* NameServer - an authoritative server of a zone: its host name and an IPv4 address ("" when
 * it has none) */
struct NameServer {
    std::string host, ip;
};
/* authoritative_servers - the zone enclosing domain (found by its SOA record, through the
 * system's resolver) into zone, and each of its NS hosts with each of its addresses */
std::vector<NameServer> authoritative_servers(const std::string &domain, std::string &zone);
/* cmd_check - one key (domain and selector) or, with all, every DOMAIN/SELECTOR key under
 * the keys directory; with a user, also what that user can do with the handler's files */
int cmd_check(std::string domain, const std::string &selector, const Nameservers &ns,
              const Access *user, bool all);

// run.cc
struct Run {
    int status = -1; /* as waitpid() gives it; exit status 127: it could not be run */
    std::string out, err;
};
/* run_program - path with args (and env, or this environment when env is empty), input on
 * its standard input, as user when given; both output streams caught */
Run run_program(const std::string &path, const std::vector<std::string> &args,
                const std::vector<std::string> &env, const std::string &input,
                const Access *user = nullptr);

// postfix.cc
/* cmd_postfix_setup - the Postfix settings keyseal-milter needs, written with postconf after
 * keeping copies of main.cf and master.cf (the newest three pairs); prints what it changed
 * and records it, with what was there before */
int cmd_postfix_setup();
/* cmd_postfix_remove - keyseal-milter out of smtpd_milters and non_smtpd_milters, and every
 * other setting setup recorded back as it was, unless changed since */
int cmd_postfix_remove();
/* cmd_postfix_check - every pitfall of the live Postfix configuration, with its fix */
int cmd_postfix_check();

// selftest.cc
int cmd_test(std::string domain, const std::string &selector, const Nameservers &ns,
             const std::string &keyseal, const Access *user);

// rotate.cc
/* cmd_rotate_start - a new key (type, or the replaced key's type) under a new selector (or
 * sYYYYMMDD), replacing the selector that signs now (of: the one of that key type when the
 * domain signs twice; replaces: named outright); the rotation's state recorded */
int cmd_rotate_start(std::string domain, const std::string &type, std::string selector,
                     const std::string &of, const std::string &replaces);
/* cmd_rotate_status - each domain in rotation (or the one given): its step and the next */
int cmd_rotate_status(const std::string &domain);
/* cmd_rotate_switch - the selector map switched and keyseal-milter reloaded once every
 * nameserver (the zone's authoritative ones, or those given) serves the new key */
int cmd_rotate_switch(std::string domain, const Nameservers &given, bool force);
/* cmd_rotate_retire - the old key moved aside once the grace period is over */
int cmd_rotate_retire(std::string domain, bool force);
/* rotation_times - the domain's rotation steps (-1: not taken); false when none is recorded;
 * throws Problem for a state file it cannot read */
bool rotation_times(const std::string &domain, time_t &started, time_t &switched, time_t &retired);

// whitelist.cc
int cmd_whitelist_list();
int cmd_whitelist_lint();
int cmd_whitelist_add(const std::string &network);
int cmd_whitelist_remove(const std::string &network);
int cmd_whitelist_check(const std::string &ip);
/* whitelist_entry - the word that admits ip, with its line, or "" */
std::string whitelist_entry(const std::string &ip);

// explain.cc
/* cmd_explain - the handler's own flow on a message (a sample when message is ""), each
 * decision shown as it is taken; nothing is written out and the spool file is removed */
int cmd_explain(const std::string &from, const std::string &context,
                const std::vector<std::string> &env, const std::string &message);
/* cmd_explain_queue - what the mail log (files, or the journal) says became of Postfix's
 * queue id: its lines, the verdict, the rule and what would change it; 1 when not there */
int cmd_explain_queue(const std::string &id, const std::vector<std::string> &files);
/* explain_queue_id - what cmd_explain_queue prints for these mail log lines; "" when none
 * is of that queue id */
std::string explain_queue_id(const std::string &id, const std::vector<std::string> &lines,
                             time_t now);

// spool.cc
int cmd_spool(bool clean, long older_than);

// report.cc
/* cmd_report - the handler's runs read from mail log files (plain or .gz), or the journal */
int cmd_report(const std::string &since, bool json, const std::vector<std::string> &files);

} // namespace keyseal_admin

#endif
