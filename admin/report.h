/*
 * report - what the handler and keyseal-milter did, read back from their syslog lines.
 *
 * parse_line() takes one line of a mail log (see maillog.h) and keeps only keyseal's and
 * keyseal-milter's; classify() names what a handler line says, matching the handler's own
 * log formats.  Tally groups handler lines into runs by pid (a run begins with its decision
 * line; the same pid later, or after a pause, is a new run), counts their outcomes and
 * keyseal-milter's per-message lines into one Summary, which render_json() and
 * render_text() show.  It keeps only runs that may still get lines, so a log of any size is
 * read in constant memory.  Nothing here ends the process or throws on bad input.
 */
#ifndef KEYSEAL_ADMIN_REPORT_H
#define KEYSEAL_ADMIN_REPORT_H

#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace keyseal_admin
{

/* the handler logs under its program's name */
#define REPORT_HANDLER_IDENT "keyseal"

enum class Kind {
    Sendmail, /* decisions to sign, by rule */
    Authorized,
    Whitelisted,
    NotSigning, /* value: the client address */
    NoKey,      /* value: the key path */
    Error,      /* value: the text: signer and key errors */
    Usage,      /* the usage error: a run of its own */
    Summary,    /* the handler's "Unable to ..." closing line of a failure */
    Detail,     /* any other line: a failing module's own text */
};

struct Classified {
    Kind kind;
    std::string value;
};
Classified classify(std::string_view text);
/* is_decision - whether a line of this kind is the handler's decision (to sign or not) */
bool is_decision(Kind kind);
/* failure_rank - which line of a failed run names its reason best: lower wins */
int failure_rank(Kind kind);

struct Line {
    time_t when = 0;
    pid_t pid = 0;
    bool milter = false;     /* keyseal-milter's line, not the handler's */
    std::string trace, text; /* the trace id (keyseal-milter's: the queue id), the rest */
};
enum class Parsed { NotOurs, Ours, Malformed };
/* parse_line - now gives the year of traditional stamps, which carry none */
Parsed parse_line(std::string_view line, time_t now, Line &out);
/* milter_line - text (a keyseal-milter line after its queue id) is the line fmt ("%s: ...")
 * writes; the values after the queue id go to values */
bool milter_line(const char *fmt, std::string_view text, std::vector<std::string> &values);

/* The ways to have a loopback SMTP client's mail signed, and what each means for trust */
extern const char *const LOOPBACK_HINT;

/* Summary - what a log says the handler did: the one result both renderings show */
struct Summary {
    struct Failure {
        std::string reason;
        long count = 0;
        std::string trace; /* the earliest run's */
        time_t when = 0;
    };
    struct Hour {
        time_t hour = 0;
        long signed_ = 0, skipped = 0, failed = 0;
    };
    long runs = 0, signed_ = 0, skipped = 0, failed = 0, malformed = 0;
    long bounces = 0;         /* failed runs whose sender had no domain */
    long without_address = 0; /* skipped runs without a client address (TCPREMOTEIP unset) */
    long loopback = 0;        /* skipped runs of SMTP clients at loopback addresses */
    long null_senders = 0;    /* bounces keyseal-milter did not give the handler */
    long folded = 0;          /* messages whose long lines keyseal-milter folded */
    long warned = 0;          /* messages signed with a line Postfix breaks after signing */
    struct Misaligned {
        std::string d, from; /* the signing domain, the From: header's domain */
        long count = 0;
    };
    std::vector<Misaligned> misaligned; /* most first */
    std::map<std::string, long> by_rule;
    std::vector<Failure> failures;                     /* most frequent first */
    std::vector<std::pair<std::string, long>> no_key;  /* DOMAIN/SELECTOR, most first */
    std::vector<std::pair<std::string, long>> clients; /* top ten, most first */
    std::vector<Hour> hours;                           /* in time order */
};

/* Tally - groups lines into runs by pid and counts the runs' outcomes */
class Tally
{
  public:
    void add(const Line &line);
    Summary finish(long malformed); /* closes every open run */

  private:
    struct Run {
        time_t first = 0, last = 0;
        std::string trace;
        int decision = -1; /* a Kind of decision, or -1 */
        std::string client, reason, no_key;
        bool bounce = false;
        int reason_rank = 99;
    };
    void close(const Run &run);
    void add_milter(const Line &line);
    void sweep(time_t now);

    std::unordered_map<pid_t, Run> open_;
    Summary sum_;
    std::map<std::string, Summary::Failure> failures_;
    std::map<std::string, long> no_key_, clients_;
    std::map<std::pair<std::string, std::string>, long> misaligned_;
    std::map<time_t, Summary::Hour> hours_;
    long lines_ = 0;
    time_t latest_ = 0;
};

nlohmann::ordered_json render_json(const Summary &s);
std::string render_text(const Summary &s, bool utf8);

/* loopback_unsigned - the messages of SMTP clients at loopback addresses that the mail log
 * files say were not signed; -1 when none could be read */
long loopback_unsigned(const std::vector<std::string> &files);

/* cmd_report - `keyseal-admin report`: the handler's runs read from mail log files (plain or
 * .gz), or the journal; the exit status, or Problem when the log cannot be read */
int cmd_report(const std::string &since, bool json, const std::vector<std::string> &files);

} // namespace keyseal_admin

#endif
