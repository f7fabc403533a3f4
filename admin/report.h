/*
 * report - what the handler did, read back from its syslog lines.
 *
 * parse_line() takes one line of a mail log (traditional "Mmm dd hh:mm:ss host" or
 * RFC 3339 stamps) and keeps only keyseal's; classify() names what a handler line says,
 * matching the handler's own log formats.  Tally groups lines into runs by pid (a run
 * begins with its decision line; the same pid later, or after a pause, is a new run) and
 * counts their outcomes.  It keeps only runs that may still get lines, so a log of any
 * size is read in constant memory.  Nothing here ends the process or throws on bad input.
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

class Tally
{
  public:
    void add(const Line &line);
    void finish(); /* closes every open run */
    nlohmann::ordered_json json() const;
    std::string text(bool utf8) const;
    long malformed = 0;

  private:
    struct Run {
        time_t first = 0, last = 0;
        std::string trace;
        int decision = -1; /* a Kind of decision, or -1 */
        std::string client, reason, no_key;
        int reason_rank = 99;
    };
    struct Failure {
        long count = 0;
        std::string trace;
        time_t when = 0;
    };
    struct Hour {
        long signed_ = 0, skipped = 0, failed = 0;
    };
    void close(const Run &run);
    void sweep(time_t now);

    std::unordered_map<pid_t, Run> open_;
    long runs_ = 0, signed_ = 0, skipped_ = 0, failed_ = 0, lines_ = 0;
    std::map<std::string, long> by_rule_, no_key_, clients_;
    std::map<std::string, Failure> failures_;
    std::map<time_t, Hour> hours_;
    time_t latest_ = 0;
};

} // namespace keyseal_admin

#endif
