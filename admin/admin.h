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
/* check_names - refuse a domain or selector the handler would build a bad key path from */
void check_names(const std::string &domain, const std::string &selector);
/* valid_name - a name check_names accepts: a key's domain or selector */
bool valid_name(const std::string &name);
/* all_keys - every DOMAIN/SELECTOR key under the keys directory, in name order */
std::vector<std::pair<std::string, std::string>> all_keys();
Nameservers parse_nameservers(const std::string &list);
std::string errno_text(const std::string &path);
/* key_path - the handler's key path for domain and selector */
std::string key_path(const std::string &domain, const std::string &selector);

// keys.cc
/* read_key_text - the key file as the handler reads it; a DK_KEY_* status */
int read_key_text(const std::string &path, std::string &text);
/* load_rsa_key - an RSA key from PEM or bare base64 DER text, as the handler's library takes
 * it, or null; never prompts, and wipes text */
Pkey load_rsa_key(std::string &text);
std::string public_key_base64(EVP_PKEY *key);
std::string key_pem(EVP_PKEY *key);
/* dns_record - the zone-file lines of the key's TXT record, strings of at most 255 bytes */
std::string dns_record(const std::string &domain, const std::string &selector,
                       const std::string &public_b64);
/* inspect_key - findings on the key file as the handler would read it; the key or null */
Pkey inspect_key(const std::string &path, Report &report);
int cmd_keygen(const std::string &domain, const std::string &selector, int bits,
               const std::string &group, bool force);
int cmd_dns(const std::string &domain, const std::string &selector);

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
/* lookup_txt - the TXT strings of each record at name, joined per record; throws Problem */
std::vector<std::string> lookup_txt(const std::string &name, const Nameservers &ns);
/* cmd_check - one key (domain and selector) or, with all, every DOMAIN/SELECTOR key under
 * the keys directory; with a user, also what that user can do with the handler's files */
int cmd_check(const std::string &domain, const std::string &selector, const Nameservers &ns,
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
int cmd_test(const std::string &domain, const std::string &selector, const Nameservers &ns,
             const std::string &keyseal, const Access *user);

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

// spool.cc
int cmd_spool(bool clean, long older_than);

// report.cc
/* cmd_report - the handler's runs read from mail log files (plain or .gz), or the journal */
int cmd_report(const std::string &since, bool json, const std::vector<std::string> &files);

} // namespace keyseal_admin

#endif
