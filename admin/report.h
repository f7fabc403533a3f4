/*
 * report - what the handler did, read back from its syslog lines.
 *
 * parse_line() takes one line of a mail log (traditional "Mmm dd hh:mm:ss host" or
 * RFC 3339 stamps) and keeps only keyseal's; classify() names what a handler line says,
 * matching the handler's own log formats.  Tally groups lines into runs by pid (a run
 * begins with its decision line; the same pid later, or after a pause, is a new run) and
 * counts their outcomes into one Summary, which render_json() and render_text() show.  It
 * keeps only runs that may still get lines, so a log of any size is read in constant
 * memory.  Nothing here ends the process or throws on bad input.
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

struct Line {
    time_t when = 0;
    pid_t pid = 0;
    std::string trace, text;
};
enum class Parsed { NotOurs, Ours, Malformed };
/* parse_line - now gives the year of traditional stamps, which carry none */
Parsed parse_line(std::string_view line, time_t now, Line &out);

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
    void sweep(time_t now);

    std::unordered_map<pid_t, Run> open_;
    Summary sum_;
    std::map<std::string, Summary::Failure> failures_;
    std::map<std::string, long> no_key_, clients_;
    std::map<time_t, Summary::Hour> hours_;
    long lines_ = 0;
    time_t latest_ = 0;
};

nlohmann::ordered_json render_json(const Summary &s);
std::string render_text(const Summary &s, bool utf8);

} // namespace keyseal_admin

#endif
