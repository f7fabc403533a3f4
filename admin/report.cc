#include "admin/report.h"

#include "admin/admin.h"
#include "dkim/dk_key.h"
#include "dkim/dk_engine.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "mailhandler/mh_handler.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <functional>
#include <langinfo.h>
#include <vector>
#include <zlib.h>

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

/* rank - which line of a failed run names its reason best: lower wins */
int rank(Kind k)
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

const char *const MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/* rfc3339 - "2026-11-22T03:45:01.123456+01:00" (or +0100, or Z); the length read, or 0 */
size_t rfc3339(std::string_view s, time_t &when)
{
    struct tm tm {
    };
    int n = 0;
    std::string head(s.substr(0, 19));
    if (sscanf(head.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
               &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &n) != 6 ||
        n != 19)
        return 0;
    size_t i = 19;
    if (i < s.size() && s[i] == '.')
        while (++i < s.size() && isdigit((unsigned char)s[i])) {
        }
    long offset = 0;
    if (i < s.size() && s[i] == 'Z') {
        i++;
    } else if (i + 5 <= s.size() && (s[i] == '+' || s[i] == '-')) {
        int h = 0, m = 0;
        std::string z(s.substr(i + 1, 5));
        if (sscanf(z.c_str(), "%2d:%2d", &h, &m) != 2 && sscanf(z.c_str(), "%2d%2d", &h, &m) != 2)
            return 0;
        offset = (s[i] == '-' ? -1 : 1) * (h * 3600L + m * 60L);
        i += z.size() > 2 && z[2] == ':' ? 6 : 5;
    } else {
        return 0;
    }
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    when = timegm(&tm) - offset;
    return i;
}

/* traditional - "Nov 22 03:45:01", local time of the year that puts it not in the future */
size_t traditional(std::string_view s, time_t now, time_t &when)
{
    if (s.size() < 15) return 0;
    struct tm tm {
    };
    localtime_r(&now, &tm);
    int year = tm.tm_year;
    tm = {};
    tm.tm_mon = -1;
    for (int m = 0; m < 12; m++)
        if (s.substr(0, 3) == MONTHS[m]) tm.tm_mon = m;
    std::string rest(s.substr(3, 12));
    if (tm.tm_mon < 0 || sscanf(rest.c_str(), " %2d %2d:%2d:%2d", &tm.tm_mday, &tm.tm_hour,
                                &tm.tm_min, &tm.tm_sec) != 4)
        return 0;
    tm.tm_year = year;
    tm.tm_isdst = -1;
    when = mktime(&tm);
    if (when > now + 86400) { /* December's lines read in January */
        tm.tm_year--;
        tm.tm_isdst = -1;
        when = mktime(&tm);
    }
    return 15;
}

} // namespace

Classified classify(std::string_view text)
{
    std::string v;
    if (fits(DK_LOG_SENDMAIL, text, v)) return {Kind::Sendmail, v};
    if (fits(DK_LOG_AUTHORIZED, text, v)) return {Kind::Authorized, v};
    if (fits(DK_LOG_WHITELISTED, text, v)) return {Kind::Whitelisted, v};
    if (fits(DK_LOG_NOT_SIGNING, text, v)) return {Kind::NotSigning, v};
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
    static const std::string_view TAG = " keyseal[";
    size_t tag = line.find(TAG);
    if (tag == std::string_view::npos) return Parsed::NotOurs;
    size_t used = !line.empty() && isdigit((unsigned char)line[0])
                      ? rfc3339(line, out.when)
                      : traditional(line, now, out.when);
    /* the tag must be the one after the stamp and the host name */
    if (used == 0 || used >= line.size() || line[used] != ' ') return Parsed::Malformed;
    size_t host_end = line.find(' ', used + 1);
    if (host_end != tag)
        return host_end == std::string_view::npos ? Parsed::Malformed : Parsed::NotOurs;
    size_t pid_start = tag + TAG.size(), close = line.find("]: ", pid_start);
    if (close == std::string_view::npos || close == pid_start) return Parsed::Malformed;
    pid_t pid = 0;
    for (size_t i = pid_start; i < close; i++) {
        if (!isdigit((unsigned char)line[i])) return Parsed::Malformed;
        pid = pid * 10 + (line[i] - '0');
    }
    out.pid = pid;
    std::string_view msg = line.substr(close + 3);
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\r'))
        msg.remove_suffix(1);
    /* every handler line carries its run's trace id first */
    size_t colon = msg.find(": ");
    out.trace = colon == std::string_view::npos ? "" : std::string(msg.substr(0, colon));
    out.text =
        colon == std::string_view::npos ? std::string(msg) : std::string(msg.substr(colon + 2));
    return Parsed::Ours;
}

void Tally::add(const Line &line)
{
    Classified c = classify(line.text);
    bool decision = c.kind <= Kind::NotSigning;
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
    } else if (rank(c.kind) < run.reason_rank) {
        run.reason_rank = rank(c.kind);
        run.reason = c.kind == Kind::NoKey ? "cannot get sender domain key" : c.value;
        if (c.kind == Kind::NoKey) {
            const std::string dir = std::string(DK_KEYS_DIR) + "/";
            run.no_key = starts(c.value, dir) ? c.value.substr(dir.size()) : c.value;
            /* an empty domain: the sender had none, as a bounce's null sender */
            run.bounce = starts(run.no_key, "/");
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
        if (run.client != "NULL") /* the handler's word for an unset TCPREMOTEIP */
            clients_[run.client]++;
        else
            sum_.without_address++;
        return;
    }
    if (run.decision >= 0 && run.reason.empty()) {
        /* the handler says nothing more when it signs */
        static const char *const RULES[] = {"sendmail", "authorized", "whitelisted"};
        sum_.signed_++, hour.signed_++;
        sum_.by_rule[RULES[run.decision]]++;
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
    for (const char *rule : {"sendmail", "authorized", "whitelisted"})
        sum_.by_rule[rule] += 0;
    for (const auto &[reason, f] : failures_)
        sum_.failures.push_back(f);
    std::stable_sort(sum_.failures.begin(), sum_.failures.end(),
                     [](auto &a, auto &b) { return a.count > b.count; });
    sum_.no_key = most_first(no_key_);
    sum_.clients = most_first(clients_);
    sum_.clients.resize(std::min<size_t>(sum_.clients.size(), TOP_CLIENTS));
    for (auto &[t, h] : hours_)
        sum_.hours.push_back(h);
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
    for (const char *rule : {"sendmail", "authorized", "whitelisted"})
        j["signed_by_rule"][rule] = s.by_rule.at(rule);
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
    snprintf(buf, sizeof(buf), "signed by rule: sendmail %ld, authorized %ld, whitelisted %ld",
             s.by_rule.at("sendmail"), s.by_rule.at("authorized"), s.by_rule.at("whitelisted"));
    line(buf);
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

/* read_log - feed every line of a mail log file (plain or .gz); "" or why it stopped */
static std::string read_log(const std::string &file,
                            const std::function<void(std::string_view)> &feed)
{
    gzFile in = gzopen(file.c_str(), "rb"); /* a plain file reads through unchanged */
    if (in == nullptr) return strerror(errno != 0 ? errno : ENOMEM);
    gzbuffer(in, 1 << 20);
    std::vector<char> buf(1 << 16);
    std::string line;
    while (gzgets(in, buf.data(), (int)buf.size()) != nullptr) {
        size_t n = strlen(buf.data());
        bool whole = n > 0 && buf[n - 1] == '\n';
        if (line.empty() && whole) {
            feed(std::string_view(buf.data(), n));
            continue;
        }
        line.append(buf.data(), n);
        if (whole) feed(line), line.clear();
    }
    if (!line.empty()) feed(line);
    int err = Z_OK;
    std::string why = gzerror(in, &err);
    if (err == Z_ERRNO) why = strerror(errno);
    gzclose(in);
    return err != Z_OK && err != Z_BUF_ERROR ? why : "";
}

int cmd_report(const std::string &since, bool json, const std::vector<std::string> &files)
{
    time_t now = time(nullptr), from = since_time(since, now);
    Tally tally;
    long malformed = 0, lines = 0;
    auto feed = [&](std::string_view text) {
        Line l;
        Parsed p = parse_line(text, now, l);
        lines++;
        if (p == Parsed::Malformed) malformed++;
        if (p == Parsed::Ours && l.when >= from) tally.add(l);
    };
    size_t unread = 0;
    for (const auto &file : files) {
        /* rotated lists often hold a file that is gone or unreadable: say so, read the rest */
        std::string why = read_log(file, feed);
        if (why.empty()) continue;
        unread++;
        fprintf(stderr,
                "keyseal-admin report: warning: cannot read %s: %s; the report leaves it out\n",
                file.c_str(), why.c_str());
    }
    if (!files.empty() && unread == files.size())
        throw Problem("none of the files could be read: name readable mail log files");
    if (files.empty()) {
        /* the journal, in the same stamp form as a mail log */
        FILE *j = popen("journalctl -t keyseal -o short-iso --no-pager -q 2>/dev/null", "r");
        if (j == nullptr) throw Problem("cannot run journalctl: name the mail log files instead");
        char *l = nullptr;
        size_t room = 0;
        while (getline(&l, &room, j) >= 0)
            feed(l);
        free(l);
        if (pclose(j) != 0 && lines == 0)
            throw Problem("no journal to read (journalctl failed): name the mail log files "
                          "instead, e.g. keyseal-admin report /var/log/mail.log*");
    }
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

} // namespace keyseal_admin
