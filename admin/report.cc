#include "admin/report.h"

#include "admin/admin.h"
#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "mailhandler/mail_me.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>
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
    const std::string stem = std::string(MAIL_SPOOL_DIR) + "/message";
    for (size_t at = text.find(stem); at != std::string::npos; at = text.find(stem, at + 1))
        if (at + stem.size() + 6 <= text.size()) text.replace(at + stem.size(), 6, "XXXXXX");
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
    if (text == DK_LOG_KEY_TOO_BIG || starts(text, "DKIM error: "))
        return {Kind::Error, std::string(text)};
    if (starts(text, "Some args not defined.")) return {Kind::Usage, "usage error"};
    if (starts(text, "Unable to ")) return {Kind::Summary, std::string(text)};
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
    /* a usage error, a second decision or a pause means the pid belongs to a new run */
    bool new_run =
        it != open_.end() && (c.kind == Kind::Usage || (decision && it->second.decision >= 0) ||
                              line.when - it->second.last > RUN_PAUSE);
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

void Tally::finish()
{
    for (const auto &[pid, run] : open_)
        close(run);
    open_.clear();
}

void Tally::close(const Run &run)
{
    runs_++;
    Hour &hour = hours_[run.first - run.first % 3600];
    if (run.decision == (int)Kind::NotSigning && run.reason.empty()) {
        skipped_++, hour.skipped++;
        clients_[run.client.empty() ? "NULL" : run.client]++;
        return;
    }
    if (run.decision >= 0 && run.reason.empty()) {
        /* the handler says nothing more when it signs */
        static const char *const RULES[] = {"sendmail", "authorized", "whitelisted"};
        signed_++, hour.signed_++;
        by_rule_[RULES[run.decision]]++;
        return;
    }
    failed_++, hour.failed++;
    Failure &f = failures_[run.reason.empty() ? "no decision logged" : run.reason];
    /* runs close out of order: the example is the earliest one */
    if (f.count++ == 0 || run.first < f.when) f.trace = run.trace, f.when = run.first;
    if (!run.no_key.empty()) no_key_[run.no_key]++;
}

nlohmann::ordered_json Tally::json() const
{
    nlohmann::ordered_json j;
    j["runs"] = runs_;
    j["signed"] = signed_;
    j["skipped"] = skipped_;
    j["failed"] = failed_;
    j["malformed_lines"] = malformed;
    j["signed_by_rule"] = nlohmann::ordered_json::object();
    for (const char *rule : {"sendmail", "authorized", "whitelisted"})
        j["signed_by_rule"][rule] = by_rule_.count(rule) ? by_rule_.at(rule) : 0;
    std::vector<std::pair<std::string, Failure>> fails(failures_.begin(), failures_.end());
    std::stable_sort(fails.begin(), fails.end(),
                     [](const auto &a, const auto &b) { return a.second.count > b.second.count; });
    j["failures"] = nlohmann::ordered_json::array();
    for (const auto &[reason, f] : fails)
        j["failures"].push_back({{"reason", reason},
                                 {"count", f.count},
                                 {"example_trace", f.trace},
                                 {"example_time", stamp(f.when, "%Y-%m-%dT%H:%M:%S%z")}});
    j["domains_without_key"] = no_key_;
    std::vector<std::pair<std::string, long>> top(clients_.begin(), clients_.end());
    std::stable_sort(top.begin(), top.end(), [](auto &a, auto &b) { return a.second > b.second; });
    top.resize(std::min<size_t>(top.size(), TOP_CLIENTS));
    j["skipped_clients"] = nlohmann::ordered_json::object();
    for (const auto &[ip, n] : top)
        j["skipped_clients"][ip] = n;
    j["hours"] = nlohmann::ordered_json::array();
    for (const auto &[hour, h] : hours_)
        j["hours"].push_back({{"hour", stamp(hour, "%Y-%m-%dT%H:00%z")},
                              {"signed", h.signed_},
                              {"skipped", h.skipped},
                              {"failed", h.failed}});
    return j;
}

std::string Tally::text(bool utf8) const
{
    nlohmann::ordered_json j = json();
    std::string out;
    auto line = [&](const std::string &s) { out += s + "\n"; };
    char buf[512];
    snprintf(buf, sizeof(buf), "runs %ld   signed %ld   skipped %ld   failed %ld", runs_, signed_,
             skipped_, failed_);
    line(buf);
    const auto &rules = j["signed_by_rule"];
    snprintf(buf, sizeof(buf), "signed by rule: sendmail %ld, authorized %ld, whitelisted %ld",
             rules["sendmail"].get<long>(), rules["authorized"].get<long>(),
             rules["whitelisted"].get<long>());
    line(buf);
    if (malformed > 0) line("malformed keyseal lines (not counted): " + std::to_string(malformed));
    line("");
    line("failures by reason:");
    for (const auto &f : j["failures"]) {
        snprintf(buf, sizeof(buf), "%7ld  %s   (e.g. trace %s at %s)", f["count"].get<long>(),
                 f["reason"].get<std::string>().c_str(),
                 f["example_trace"].get<std::string>().c_str(),
                 f["example_time"].get<std::string>().c_str());
        line(buf);
    }
    if (j["failures"].empty()) line("      none");
    line("");
    line("domains without a usable key (DOMAIN/SELECTOR):");
    std::vector<std::pair<std::string, long>> keys(no_key_.begin(), no_key_.end());
    std::stable_sort(keys.begin(), keys.end(),
                     [](auto &a, auto &b) { return a.second > b.second; });
    for (const auto &[key, n] : keys) {
        snprintf(buf, sizeof(buf), "%7ld  %s", n, key.c_str());
        line(buf);
    }
    if (no_key_.empty()) line("      none");
    line("");
    line("skipped clients, not whitelisted (top ten):");
    for (const auto &[ip, n] : j["skipped_clients"].items()) {
        snprintf(buf, sizeof(buf), "%7ld  %s", n.get<long>(), ip.c_str());
        line(buf);
    }
    if (j["skipped_clients"].empty()) line("      none");
    line("");
    const char *marks[3] = {utf8 ? "\u2588" : "#", utf8 ? "\u2592" : "+", utf8 ? "\u2591" : "!"};
    line(std::string("runs per hour (") + marks[0] + " signed  " + marks[1] + " skipped  " +
         marks[2] + " failed):");
    long most = 1;
    for (const auto &[hour, h] : hours_)
        most = std::max(most, h.signed_ + h.skipped + h.failed);
    for (const auto &[hour, h] : hours_) {
        std::string bar;
        long parts[3] = {h.signed_, h.skipped, h.failed};
        for (int k = 0; k < 3; k++) {
            /* at least one mark for a count that is not zero, so that no failure hides */
            long width = parts[k] == 0 ? 0 : std::max(1L, parts[k] * BAR_WIDTH / most);
            for (long i = 0; i < width; i++)
                bar += marks[k];
        }
        snprintf(buf, sizeof(buf), "  %s  %s %ld", stamp(hour, "%Y-%m-%d %H:00").c_str(),
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
    auto feed = [&](std::string_view text) {
        Line l;
        Parsed p = parse_line(text, now, l);
        if (p == Parsed::Malformed) tally.malformed++;
        if (p == Parsed::Ours && l.when >= from) tally.add(l);
    };
    std::vector<char> buf(1 << 16);
    for (const auto &file : files) {
        gzFile in = gzopen(file.c_str(), "rb"); /* a plain file reads through unchanged */
        if (in == nullptr) throw Problem("cannot read " + errno_text(file));
        gzbuffer(in, 1 << 20);
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
        const char *why = gzerror(in, &err);
        gzclose(in);
        if (err != Z_OK && err != Z_BUF_ERROR) throw Problem("cannot read " + file + ": " + why);
    }
    if (files.empty()) {
        /* the journal, in the same stamp form as a mail log */
        FILE *j = popen("journalctl -t keyseal -o short-iso --no-pager -q 2>/dev/null", "r");
        if (j == nullptr) throw Problem("cannot run journalctl; name the mail log files instead");
        char *l = nullptr;
        size_t room = 0;
        while (getline(&l, &room, j) >= 0)
            feed(l);
        free(l);
        if (pclose(j) != 0 && tally.json()["runs"] == 0)
            throw Problem(
                "no journal to read (journalctl failed); name the mail log files instead");
    }
    tally.finish();
    if (json) {
        printf("%s\n", tally.json().dump(2).c_str());
        return EXIT_OK;
    }
    setlocale(LC_CTYPE, "");
    bool utf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    fputs(tally.text(utf8).c_str(), stdout);
    return EXIT_OK;
}

} // namespace keyseal_admin
