#include "admin/report.h"

#include "admin/admin.h"
#include "admin/maillog.h"
#include "milter/milter_conf.h"
#include "dkim/dk_key.h"
#include "dkim/dk_engine.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "mailhandler/mh_handler.h"
#include "milter/milter_log.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <functional>
#include <langinfo.h>
#include <unistd.h>
#include <vector>

namespace keyseal_admin
{

namespace
{

enum {
    RUN_PAUSE = 300,    /* seconds of silence after which a pid's next line is a new run */
    SWEEP_EVERY = 4096, /* lines between closing runs that can get no more lines */
    TOP_CLIENTS = 10,
    BAR_WIDTH = 40,
};

/* The handler's decisions, by its log line; the signing rules by the name report gives them */
const struct Decision {
    Kind kind;
    const char *log, *rule; /* rule: null for the decision not to sign */
} DECISIONS[] = {
    {Kind::Sendmail, DK_LOG_SENDMAIL, "sendmail"},
    {Kind::Authorized, DK_LOG_AUTHORIZED, "authorized"},
    {Kind::Whitelisted, DK_LOG_WHITELISTED, "whitelisted"},
    {Kind::NotSigning, DK_LOG_NOT_SIGNING, nullptr},
};

const Decision *decision_of(Kind kind)
{
    for (const auto &d : DECISIONS)
        if (d.kind == kind) return &d;
    return nullptr;
}

/* no_key_reason - the handler's missing-key line without its path: one reason for all keys */
std::string no_key_reason()
{
    std::string_view line = DK_LOG_NO_KEY;
    return std::string(line.substr(0, line.find(" from %s")));
}

/* fits - text is fmt with its one %s filled in; the filling goes to value */
bool fits(std::string_view fmt, std::string_view text, std::string &value)
{
    size_t at = fmt.find("%s");
    std::string_view head = fmt.substr(0, at), tail = fmt.substr(at + 2);
    if (text.size() < head.size() + tail.size() || text.substr(0, head.size()) != head ||
        text.substr(text.size() - tail.size()) != tail)
        return false;
    value = text.substr(head.size(), text.size() - head.size() - tail.size());
    return true;
}

bool starts(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

/* generic - a spool file's random name would make every failure a reason of its own */
std::string generic(std::string text)
{
    const std::string stem = std::string(MAIL_SPOOL_DIR) + "/" + MAIL_SPOOL_STEM;
    for (size_t at = text.find(stem); at != std::string::npos; at = text.find(stem, at + 1))
        if (at + stem.size() + MAIL_SPOOL_RANDOM <= text.size())
            text.replace(at + stem.size(), MAIL_SPOOL_RANDOM, MAIL_SPOOL_RANDOM, 'X');
    return text;
}

std::string stamp(time_t t, const char *fmt)
{
    char buf[64];
    struct tm tm;
    localtime_r(&t, &tm);
    strftime(buf, sizeof(buf), fmt, &tm);
    return buf;
}

} // namespace

int failure_rank(Kind k)
{
    switch (k) {
    case Kind::NoKey:
    case Kind::Error:
    case Kind::Usage:
        return 0;
    case Kind::Summary:
        return 1;
    default:
        return 2;
    }
}

bool is_decision(Kind kind)
{
    return decision_of(kind) != nullptr;
}

Classified classify(std::string_view text)
{
    std::string v;
    for (const auto &d : DECISIONS)
        if (fits(d.log, text, v)) return {d.kind, v};
    if (fits(DK_LOG_NO_KEY, text, v)) return {Kind::NoKey, v};
    if (text == DK_LOG_KEY_TOO_BIG || fits(DK_LOG_DKIM_ERROR, text, v))
        return {Kind::Error, std::string(text)};
    /* the usage line ends in the program's name as the chain gave it, and a line end */
    std::string_view usage = MH_LOG_USAGE;
    if (starts(text, usage.substr(0, usage.find("%s")))) return {Kind::Usage, "usage error"};
    for (const char *summary : {DK_LOG_INIT_FAILED, DK_LOG_SPOOL_FAILED, DK_LOG_HEADER_FAILED})
        if (text == summary) return {Kind::Summary, std::string(text)};
    return {Kind::Detail, generic(std::string(text))};
}

Parsed parse_line(std::string_view line, time_t now, Line &out)
{
    static const std::string_view HANDLER = " " REPORT_HANDLER_IDENT "[",
                                  MILTER = " " MILTER_IDENT "[";
    /* most lines of a mail log are other programs': the cheap test first */
    if (line.find(HANDLER) == std::string_view::npos && line.find(MILTER) == std::string_view::npos)
        return Parsed::NotOurs;
    SyslogLine s;
    if (!parse_syslog(line, now, s)) return Parsed::Malformed;
    if (s.ident != REPORT_HANDLER_IDENT && s.ident != MILTER_IDENT) return Parsed::NotOurs;
    if (s.pid == 0) return Parsed::Malformed;
    out.when = s.when;
    out.pid = s.pid;
    out.milter = s.ident == MILTER_IDENT;
    /* every handler line carries its run's trace id first, every per-message line of
     * keyseal-milter its queue id */
    size_t colon = s.message.find(": ");
    out.trace = colon == std::string::npos ? "" : s.message.substr(0, colon);
    out.text = colon == std::string::npos ? s.message : s.message.substr(colon + 2);
    return Parsed::Ours;
}

bool milter_line(const char *fmt, std::string_view text, std::vector<std::string> &values)
{
    std::string_view f = fmt;
    return f.substr(0, 4) == "%s: " && match(f.substr(4), text, values);
}

const char *const LOOPBACK_HINT =
    "have each application log in with SMTP AUTH (each proves who it is, and its mail is signed "
    "as that user's), or run keyseal-admin whitelist add 127.0.0.1/32 (then every local user "
    "and process that can connect to port 25 gets its mail signed)";

void Tally::add_milter(const Line &line)
{
    std::vector<std::string> v;
    if (milter_line(MILTER_LOG_NULL_SENDER, line.text, v)) {
        sum_.null_senders++;
    } else if (milter_line(MILTER_LOG_FOLDED, line.text, v)) {
        sum_.folded++;
    } else if (milter_line(MILTER_LOG_LONG_LINE, line.text, v)) {
        sum_.warned++;
    } else if (milter_line(MILTER_LOG_MISALIGNED, line.text, v) && v.size() == 2) {
        misaligned_[{v[0], v[1]}]++;
    } else if (milter_line(MILTER_LOG_NOT_SIGNED, line.text, v) ||
               milter_line(MILTER_LOG_TEMPFAIL, line.text, v) ||
               milter_line(MILTER_LOG_PERMANENT, line.text, v)) {
        /* a handler killed at the time limit logged its decision and nothing more: the
         * milter's line is what says the run failed (the handler's own reason, when it gave
         * one, names it better) */
        for (auto &[pid, run] : open_)
            if (run.trace == line.trace && run.reason_rank > 1)
                run.reason = v[0], run.reason_rank = 1;
    }
}

void Tally::add(const Line &line)
{
    if (line.milter) return add_milter(line);
    Classified c = classify(line.text);
    bool decision = is_decision(c.kind);
    auto it = open_.find(line.pid);
    /* a usage error, a second decision, another trace id or a pause means the pid belongs to
     * a new run: keyseal-milter's workers log one message after another under one pid */
    bool new_run = it != open_.end() &&
                   (c.kind == Kind::Usage || (decision && it->second.decision >= 0) ||
                    line.trace != it->second.trace || line.when - it->second.last > RUN_PAUSE);
    if (new_run) {
        close(it->second);
        open_.erase(it);
        it = open_.end();
    }
    if (it == open_.end()) {
        it = open_.emplace(line.pid, Run{}).first;
        it->second.first = line.when;
        it->second.trace = line.trace;
    }
    Run &run = it->second;
    run.last = line.when;
    if (decision) {
        run.decision = (int)c.kind;
        if (c.kind == Kind::NotSigning) run.client = c.value;
    } else if (failure_rank(c.kind) < run.reason_rank) {
        run.reason_rank = failure_rank(c.kind);
        run.reason = c.kind == Kind::NoKey ? no_key_reason() : c.value;
        std::vector<std::string> key; /* the domain and the selector */
        if (c.kind == Kind::NoKey) {
            bool path = match(DK_KEY_PATH_FORMAT, c.value, key) && key.size() == 2;
            run.no_key = path ? key[0] + "/" + key[1] : c.value;
            /* an empty domain: the sender had none, as a bounce's null sender */
            run.bounce = path && key[0].empty();
            if (run.bounce) run.reason = "sender without a domain (a bounce): nothing to sign with";
        }
    }
    latest_ = std::max(latest_, line.when);
    if (++lines_ % SWEEP_EVERY == 0) sweep(latest_);
}

void Tally::sweep(time_t now)
{
    for (auto it = open_.begin(); it != open_.end();) {
        if (now - it->second.last <= RUN_PAUSE) {
            ++it;
            continue;
        }
        close(it->second);
        it = open_.erase(it);
    }
}

void Tally::close(const Run &run)
{
    sum_.runs++;
    Summary::Hour &hour = hours_[run.first - run.first % 3600];
    hour.hour = run.first - run.first % 3600;
    if (run.decision == (int)Kind::NotSigning && run.reason.empty()) {
        sum_.skipped++, hour.skipped++;
        if (run.client != DK_LOG_NO_CLIENT)
            clients_[run.client]++;
        else
            sum_.without_address++;
        if (loopback(run.client)) sum_.loopback++;
        return;
    }
    if (run.decision >= 0 && run.reason.empty()) {
        /* the handler says nothing more when it signs */
        sum_.signed_++, hour.signed_++;
        sum_.by_rule[decision_of((Kind)run.decision)->rule]++;
        return;
    }
    sum_.failed++, hour.failed++;
    std::string reason = run.reason.empty() ? "no decision logged" : run.reason;
    Summary::Failure &f = failures_[reason];
    f.reason = reason;
    /* runs close out of order: the example is the earliest one */
    if (f.count++ == 0 || run.first < f.when) f.trace = run.trace, f.when = run.first;
    if (run.bounce)
        sum_.bounces++;
    else if (!run.no_key.empty())
        no_key_[run.no_key]++;
}

/* most_first - a count map as a list, the largest counts first, ties in name order */
static std::vector<std::pair<std::string, long>> most_first(const std::map<std::string, long> &m)
{
    std::vector<std::pair<std::string, long>> v(m.begin(), m.end());
    std::stable_sort(v.begin(), v.end(), [](auto &a, auto &b) { return a.second > b.second; });
    return v;
}

Summary Tally::finish(long malformed)
{
    for (const auto &[pid, run] : open_)
        close(run);
    open_.clear();
    sum_.malformed = malformed;
    for (const auto &d : DECISIONS)
        if (d.rule != nullptr) sum_.by_rule[d.rule] += 0;
    for (const auto &[reason, f] : failures_)
        sum_.failures.push_back(f);
    std::stable_sort(sum_.failures.begin(), sum_.failures.end(),
                     [](auto &a, auto &b) { return a.count > b.count; });
    sum_.no_key = most_first(no_key_);
    sum_.clients = most_first(clients_);
    sum_.clients.resize(std::min<size_t>(sum_.clients.size(), TOP_CLIENTS));
    for (auto &[t, h] : hours_)
        sum_.hours.push_back(h);
    for (const auto &[pair, n] : misaligned_)
        sum_.misaligned.push_back({pair.first, pair.second, n});
    std::stable_sort(sum_.misaligned.begin(), sum_.misaligned.end(),
                     [](auto &a, auto &b) { return a.count > b.count; });
    return sum_;
}

nlohmann::ordered_json render_json(const Summary &s)
{
    nlohmann::ordered_json j;
    j["runs"] = s.runs;
    j["signed"] = s.signed_;
    j["skipped"] = s.skipped;
    j["failed"] = s.failed;
    j["malformed_lines"] = s.malformed;
    j["signed_by_rule"] = nlohmann::ordered_json::object();
    for (const auto &d : DECISIONS)
        if (d.rule != nullptr) j["signed_by_rule"][d.rule] = s.by_rule.at(d.rule);
    j["failures"] = nlohmann::ordered_json::array();
    for (const auto &f : s.failures)
        j["failures"].push_back({{"reason", f.reason},
                                 {"count", f.count},
                                 {"example_trace", f.trace},
                                 {"example_time", stamp(f.when, "%Y-%m-%dT%H:%M:%S%z")}});
    j["domains_without_key"] = nlohmann::ordered_json::object();
    for (const auto &[key, n] : s.no_key)
        j["domains_without_key"][key] = n;
    j["bounces"] = s.bounces;
    j["skipped_clients"] = nlohmann::ordered_json::object();
    for (const auto &[ip, n] : s.clients)
        j["skipped_clients"][ip] = n;
    j["skipped_without_address"] = s.without_address;
    j["skipped_loopback"] = s.loopback;
    j["null_senders"] = s.null_senders;
    j["long_lines"] = {{"folded", s.folded}, {"warned", s.warned}};
    j["misaligned"] = nlohmann::ordered_json::array();
    for (const auto &m : s.misaligned)
        j["misaligned"].push_back({{"d", m.d}, {"from", m.from}, {"count", m.count}});
    j["hours"] = nlohmann::ordered_json::array();
    for (const auto &h : s.hours)
        j["hours"].push_back({{"hour", stamp(h.hour, "%Y-%m-%dT%H:00%z")},
                              {"signed", h.signed_},
                              {"skipped", h.skipped},
                              {"failed", h.failed}});
    return j;
}

std::string render_text(const Summary &s, bool utf8)
{
    std::string out;
    char buf[512];
    auto line = [&](const std::string &text) { out += text + "\n"; };
    auto counts = [&](const std::vector<std::pair<std::string, long>> &list, const char *none) {
        for (const auto &[name, n] : list) {
            snprintf(buf, sizeof(buf), "%7ld  %s", n, name.c_str());
            line(buf);
        }
        if (list.empty()) line(none);
    };
    snprintf(buf, sizeof(buf), "runs %ld   signed %ld   skipped %ld   failed %ld", s.runs,
             s.signed_, s.skipped, s.failed);
    line(buf);
    std::string rules;
    for (const auto &d : DECISIONS)
        if (d.rule != nullptr)
            rules += (rules.empty() ? "" : ", ") + std::string(d.rule) + " " +
                     std::to_string(s.by_rule.at(d.rule));
    line("signed by rule: " + rules);
    if (s.malformed > 0)
        line("malformed keyseal lines (not counted): " + std::to_string(s.malformed));
    line("");
    line("failures by reason:");
    for (const auto &f : s.failures) {
        snprintf(buf, sizeof(buf), "%7ld  %s   (e.g. trace %s at %s)", f.count, f.reason.c_str(),
                 f.trace.c_str(), stamp(f.when, "%Y-%m-%dT%H:%M:%S%z").c_str());
        line(buf);
    }
    if (s.failures.empty()) line("      none");
    line("");
    line("domains without a usable key (DOMAIN/SELECTOR):");
    counts(s.no_key, "      none");
    line("");
    line("skipped clients, not whitelisted (top ten):");
    auto clients = s.clients;
    if (s.without_address > 0)
        clients.emplace_back("(no client address: not local, not authenticated)",
                             s.without_address);
    counts(clients, "      none");
    if (s.loopback > 0)
        line("  " + std::to_string(s.loopback) +
             " from SMTP clients at loopback addresses (programs on this server); to have "
             "them signed, " +
             LOOPBACK_HINT);
    if (s.null_senders > 0)
        line("bounces (null sender), passed unsigned by keyseal-milter: " +
             std::to_string(s.null_senders));
    line("");
    line("signed, but DMARC will not align (d= / From: domain):");
    for (const auto &m : s.misaligned) {
        snprintf(buf, sizeof(buf), "%7ld  %s / %s", m.count, m.d.c_str(), m.from.c_str());
        line(buf);
    }
    if (s.misaligned.empty()) line("      none");
    line("");
    line("messages with lines longer than Postfix's SMTP line limit:");
    snprintf(buf, sizeof(buf), "%7ld  folded before signing, as Postfix folds them", s.folded);
    line(buf);
    snprintf(buf, sizeof(buf),
             "%7ld  left long (long_lines warn): Postfix broke them after signing, their "
             "signatures fail",
             s.warned);
    line(buf);
    line("");
    const char *marks[3] = {utf8 ? "\u2588" : "#", utf8 ? "\u2592" : "+", utf8 ? "\u2591" : "!"};
    line(std::string("runs per hour (") + marks[0] + " signed  " + marks[1] + " skipped  " +
         marks[2] + " failed):");
    long most = 1;
    for (const auto &h : s.hours)
        most = std::max(most, h.signed_ + h.skipped + h.failed);
    for (const auto &h : s.hours) {
        std::string bar;
        long parts[3] = {h.signed_, h.skipped, h.failed};
        for (int k = 0; k < 3; k++) {
            /* at least one mark for a count that is not zero, so that no failure hides */
            long width = parts[k] == 0 ? 0 : std::max(1L, parts[k] * BAR_WIDTH / most);
            for (long i = 0; i < width; i++)
                bar += marks[k];
        }
        snprintf(buf, sizeof(buf), "  %s  %s %ld", stamp(h.hour, "%Y-%m-%d %H:00").c_str(),
                 bar.c_str(), h.signed_ + h.skipped + h.failed);
        line(buf);
    }
    return out;
}

/* since_time - "YYYY-MM-DD[ HH:MM]" (local) or "Nh"/"Nd" ago */
static time_t since_time(const std::string &text, time_t now)
{
    if (text.empty()) return 0;
    char unit = text.back();
    if ((unit == 'h' || unit == 'd') && text.size() > 1 &&
        text.find_first_not_of("0123456789") == text.size() - 1)
        return now - std::stol(text) * (unit == 'h' ? 3600 : 86400);
    struct tm tm {
    };
    int n = sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                   &tm.tm_hour, &tm.tm_min);
    if (n != 3 && n != 5) throw Usage("--since takes YYYY-MM-DD, 'YYYY-MM-DD HH:MM', Nh or Nd");
    tm.tm_year -= 1900, tm.tm_mon -= 1, tm.tm_isdst = -1;
    return mktime(&tm);
}

int cmd_report(const std::string &since, bool json, const std::vector<std::string> &files)
{
    time_t now = time(nullptr), from = since_time(since, now);
    Tally tally;
    long malformed = 0;
    auto feed = [&](std::string_view text) {
        Line l;
        Parsed p = parse_line(text, now, l);
        if (p == Parsed::Malformed) malformed++;
        if (p == Parsed::Ours && l.when >= from) tally.add(l);
    };
    read_mail_log("report", files, {"-t", REPORT_HANDLER_IDENT, "-t", MILTER_IDENT}, feed);
    Summary summary = tally.finish(malformed);
    if (json) {
        printf("%s\n", render_json(summary).dump(2).c_str());
        return EXIT_OK;
    }
    setlocale(LC_CTYPE, "");
    bool utf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    fputs(render_text(summary, utf8).c_str(), stdout);
    return EXIT_OK;
}

long loopback_unsigned(const std::vector<std::string> &files)
{
    std::vector<std::string> readable;
    for (const auto &f : files)
        if (access(f.c_str(), R_OK) == 0) readable.push_back(f);
    if (readable.empty()) return -1;
    time_t now = time(nullptr);
    Tally tally;
    read_mail_log("report", readable, {}, [&](std::string_view text) {
        Line l;
        if (parse_line(text, now, l) == Parsed::Ours) tally.add(l);
    });
    return tally.finish(0).loopback;
}

} // namespace keyseal_admin
