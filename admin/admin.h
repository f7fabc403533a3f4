/*
 * keyseal-admin - the administrator's command around the handler: keys, DNS records,
 * checks, the self-test, the whitelist, "why was this not signed?" and the spool.  Every rule the
 * handler applies is taken from the handler's own modules (dkim/dk_key.h and friends), never
 * restated here.
 *
 * This header holds what every command shares; each module has its own header.  Commands
 * return the process's exit status: 0 success, 1 a problem found.  They report through
 * Findings (one "ok:"/"warning:"/"error:"/"note:" line per finding on standard output) or
 * throw Problem (one line on standard error, exit 1) or Usage (exit 2); main() prints
 * what they throw.  Nothing below ends the process.
 */
#ifndef KEYSEAL_ADMIN_H
#define KEYSEAL_ADMIN_H

#include <stdexcept>
#include <string>

namespace keyseal_admin
{

enum Exit { EXIT_OK = 0, EXIT_PROBLEM = 1, EXIT_USAGE = 2 };

struct Problem : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct Usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* Findings - findings of a check, one line each on standard output, flushed at once; an
 * error makes the exit status 1.  A quiet one prints nothing and keeps the first error and
 * warning for a summary. */
class Findings
{
  public:
    explicit Findings(bool quiet = false) : quiet_(quiet) {}
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

} // namespace keyseal_admin

#endif
