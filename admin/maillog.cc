#include "admin/maillog.h"

#include "admin/admin.h"
#include "net/ip_util.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <zlib.h>

namespace keyseal_admin
{

namespace
{

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

/* read_file - feed every line of a mail log file (plain or .gz); "" or why it stopped */
std::string read_file(const std::string &file, const std::function<void(std::string_view)> &feed)
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

} // namespace

bool parse_syslog(std::string_view line, time_t now, SyslogLine &out)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    size_t used = !line.empty() && isdigit((unsigned char)line[0])
                      ? rfc3339(line, out.when)
                      : traditional(line, now, out.when);
    if (used == 0 || used >= line.size() || line[used] != ' ') return false;
    size_t host_end = line.find(' ', used + 1);
    if (host_end == std::string_view::npos) return false;
    size_t colon = line.find(": ", host_end + 1);
    if (colon == std::string_view::npos) return false;
    out.host = line.substr(used + 1, host_end - used - 1);
    std::string_view tag = line.substr(host_end + 1, colon - host_end - 1);
    out.pid = 0;
    size_t open = tag.find('[');
    if (open != std::string_view::npos) {
        if (tag.back() != ']' || open + 2 > tag.size() - 1) return false;
        for (char c : tag.substr(open + 1, tag.size() - open - 2)) {
            if (!isdigit((unsigned char)c)) return false;
            out.pid = out.pid * 10 + (c - '0');
        }
        tag = tag.substr(0, open);
    }
    out.ident = tag;
    out.message = line.substr(colon + 2);
    return true;
}

void read_mail_log(const std::string &command, const std::vector<std::string> &files,
                   const std::vector<std::string> &journal,
                   const std::function<void(std::string_view)> &feed)
{
    size_t unread = 0;
    for (const auto &file : files) {
        /* rotated lists often hold a file that is gone or unreadable: say so, read the rest */
        std::string why = read_file(file, feed);
        if (why.empty()) continue;
        unread++;
        fprintf(stderr, "keyseal-admin %s: warning: cannot read %s: %s; the %s leaves it out\n",
                command.c_str(), file.c_str(), why.c_str(), command.c_str());
    }
    if (!files.empty() && unread == files.size())
        throw Problem("none of the files could be read: name readable mail log files");
    if (!files.empty()) return;
    /* the journal, in the same stamp form as a mail log */
    std::string run = "journalctl -o short-iso --no-pager -q";
    for (const auto &arg : journal)
        run += " '" + arg + "'"; /* the callers' own fixed words */
    FILE *j = popen((run + " 2>/dev/null").c_str(), "r");
    if (j == nullptr) throw Problem("cannot run journalctl: name the mail log files instead");
    char *l = nullptr;
    size_t room = 0;
    long lines = 0;
    while (getline(&l, &room, j) >= 0)
        feed(l), lines++;
    free(l);
    if (pclose(j) != 0 && lines == 0)
        throw Problem("no journal to read (journalctl failed): name the mail log files "
                      "instead, e.g. keyseal-admin " +
                      command + " /var/log/mail.log*");
}

bool match(std::string_view fmt, std::string_view text, std::vector<std::string> &values)
{
    values.clear();
    /* the literal pieces between the conversions */
    std::vector<std::string_view> pieces;
    size_t from = 0;
    for (size_t at = fmt.find('%'); at != std::string_view::npos; at = fmt.find('%', from)) {
        pieces.push_back(fmt.substr(from, at - from));
        from = at + 2;
    }
    pieces.push_back(fmt.substr(from));
    if (pieces.size() == 1) return text == fmt;
    const std::string_view &last = pieces.back();
    if (text.substr(0, pieces[0].size()) != pieces[0] ||
        text.size() < pieces[0].size() + last.size())
        return false;
    size_t at = pieces[0].size();
    for (size_t i = 1; i < pieces.size(); i++) {
        size_t end = i + 1 == pieces.size() ? text.size() - last.size() : text.find(pieces[i], at);
        if (end == std::string_view::npos || end < at ||
            (i + 1 == pieces.size() && text.substr(end) != last))
            return false;
        values.emplace_back(text.substr(at, end - at));
        at = end + pieces[i].size();
    }
    return true;
}

bool loopback(const std::string &address)
{
    const char *a = address.c_str();
    return inSubnet(a, "127.0.0.0", 8) || inSubnet(a, "::1", 128) ||
           inSubnet(a, "::ffff:127.0.0.0", 104);
}

} // namespace keyseal_admin
