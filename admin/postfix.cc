#include "admin/admin.h"
#include "admin/maillog.h"
#include "admin/report.h"

#include "admin/line_limit.h"
#include "milter/milter_conf.h"
#include "net/ip_network.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

const char POSTCONF[] = "/usr/sbin/postconf";
const char CLEANUP_MARK[] = "cleanup/unix/milter_macro_daemon_name";
const char START_MILTER[] = "systemctl start keyseal-milter";
/* what setup changed and what was there before, in Postfix's configuration directory */
const char SETUP_RECORD[] = "keyseal-setup";
const char COPY_STEM[] = ".keyseal-"; /* main.cf.keyseal-STAMP */
const size_t COPIES_KEPT = 3;         /* pairs of copies setup keeps */

std::string trimmed(std::string s)
{
    s.erase(s.find_last_not_of(" \t\r\n") + 1);
    s.erase(0, s.find_first_not_of(" \t\r\n"));
    return s;
}

/* postconf - its output for args; Problem with postconf's own words when it fails */
std::string postconf(const std::vector<std::string> &args)
{
    if (access(POSTCONF, X_OK) != 0)
        throw Problem(std::string("cannot run ") + POSTCONF +
                      ": Postfix is not installed (apt install postfix)");
    Run r = run_program(POSTCONF, args, {}, "");
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0)
        throw Problem("postconf " + args.front() + " failed: " + trimmed(r.err));
    return trimmed(r.out);
}

std::string get(const std::string &name)
{
    return postconf({"-h", name});
}

/* list - a Postfix list value's items (separated by commas and white space) */
std::vector<std::string> list(const std::string &value)
{
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(value);
    while (in >> item) {
        while (!item.empty() && item.back() == ',')
            item.pop_back();
        for (size_t c; (c = item.find(',')) != std::string::npos; item.erase(0, c + 1))
            if (c > 0) out.push_back(item.substr(0, c));
        if (!item.empty()) out.push_back(item);
    }
    return out;
}

bool chrooted(const std::string &service)
{
    std::string v = postconf({"-Fh", service + "/chroot"});
    return v == "y" || v == "yes";
}

struct Socket {
    std::string postfix;    /* the value Postfix's smtpd and cleanup must be given */
    std::string outside;    /* a unix socket's path as seen outside the chroot, or "" */
    std::string path;       /* the socket file, or "" for an inet socket */
    std::string host, port; /* an inet socket's address */
};

/* socket - the milter's socket as Postfix names it: a chrooted smtpd and cleanup see the
 * queue directory as / */
Socket socket_for(const keyseal_milter::Config &c, bool chroot)
{
    Socket s;
    std::string v = c.socket;
    s.path = c.socket_file();
    if (!s.path.empty()) {
        s.outside = "unix:" + s.path;
        std::string queue = get("queue_directory");
        s.postfix = s.outside;
        if (chroot) {
            if (s.path.rfind(queue + "/", 0) != 0)
                throw Problem("the milter's socket " + s.path +
                              " is outside Postfix's queue "
                              "directory " +
                              queue +
                              ", which the chrooted smtpd and cleanup "
                              "cannot reach: set socket unix:" +
                              queue + "/keyseal/milter.sock in " + c.path);
            s.postfix = "unix:" + s.path.substr(queue.size());
        }
        return s;
    }
    /* the milter's inet:PORT@HOST is Postfix's inet:HOST:PORT, with an IPv6 address in
     * brackets */
    size_t colon = v.find(':'), at = v.find('@');
    s.port = v.substr(colon + 1, at - colon - 1);
    s.host = v.substr(at + 1);
    s.postfix = "inet:" + (s.host.find(':') != std::string::npos ? "[" + s.host + "]" : s.host) +
                ":" + s.port;
    return s;
}

/* host_on_loopback - whether every address host stands for is a loopback address */
bool host_on_loopback(const std::string &host)
{
    addrinfo hints{}, *res = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0) return false;
    bool all = true;
    for (addrinfo *a = res; a; a = a->ai_next) {
        char ip[NI_MAXHOST];
        all &= getnameinfo(a->ai_addr, a->ai_addrlen, ip, sizeof(ip), nullptr, 0, NI_NUMERICHOST) ==
                   0 &&
               loopback(ip);
    }
    freeaddrinfo(res);
    return all;
}

/* connect_errno - 0 when something listens at host:port, else connect()'s errno (ETIMEDOUT
 * after 5 s without an answer); the wildcard addresses are reached through loopback, as
 * Postfix reaches them */
int connect_errno(const std::string &host, const std::string &port)
{
    std::string to = host == "0.0.0.0" ? "127.0.0.1" : host == "::" ? "::1" : host;
    addrinfo hints{}, *res = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(to.c_str(), port.c_str(), &hints, &res) != 0) return EHOSTUNREACH;
    int err = ECONNREFUSED;
    for (addrinfo *a = res; a && err != 0; a = a->ai_next) {
        int fd = socket(a->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            err = errno;
            continue;
        }
        err = connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
        if (err == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            socklen_t len = sizeof(err);
            if (poll(&p, 1, 5000) != 1)
                err = ETIMEDOUT;
            else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
                err = errno;
        }
        close(fd);
    }
    freeaddrinfo(res);
    return err;
}

keyseal_milter::Config milter_config()
{
    try {
        return keyseal_milter::load(MILTER_CONF_PATH);
    } catch (const keyseal_milter::ConfigError &e) {
        throw Problem(std::string(e.what()) + ": fix it, then keyseal-milter --check-config");
    }
}

/* same_chroot - smtpd and cleanup must see the socket under the same name */
bool same_chroot()
{
    bool smtpd = chrooted("smtp/inet"), cleanup = chrooted("cleanup/unix");
    if (smtpd != cleanup)
        throw Problem(std::string("master.cf runs ") + (smtpd ? "smtpd" : "cleanup") +
                      " chrooted and " + (smtpd ? "cleanup" : "smtpd") +
                      " not: one socket name cannot serve both; give both the same chroot "
                      "column (Debian's default: y)");
    return smtpd;
}

/* milter_list - a milter list with ours in it (or taken out), the site's own milters kept
 * in their order and a copy seen from outside the chroot dropped; the old value itself
 * when nothing changes, so that it is not rewritten */
std::string milter_list(const std::string &old, const Socket &sock, bool ours)
{
    std::string value;
    bool changed = false, present = false;
    for (const auto &m : list(old)) {
        bool mine = m == sock.postfix || m == sock.outside;
        if (mine && (!ours || m != sock.postfix || present)) {
            changed = true;
            continue;
        }
        present |= mine;
        value += (value.empty() ? "" : ", ") + m;
    }
    if (ours && !present) {
        value += (value.empty() ? "" : ", ") + sock.postfix;
        changed = true;
    }
    return changed ? value : old;
}

void reload_if_running()
{
    Run status = run_program("/usr/sbin/postfix", {"status"}, {}, "");
    if (!WIFEXITED(status.status) || WEXITSTATUS(status.status) != 0) {
        printf("Postfix is not running: the settings take effect when it starts\n");
        return;
    }
    Run reload = run_program("/usr/sbin/postfix", {"reload"}, {}, "");
    printf("%s\n", WIFEXITED(reload.status) && WEXITSTATUS(reload.status) == 0
                       ? "reloaded Postfix"
                       : "Postfix did not reload: run postfix reload");
}

/* Settings - main.cf's and master.cf's settings as they were before a change, and the
 * changes, written in one go (postconf reads main.cf again only a moment after it was
 * written).  A SERVICE/TYPE/NAME is a -o of master.cf. */
class Settings
{
  public:
    Settings()
    {
        for (const char *flag : {"-n", "-P"}) {
            std::istringstream in(postconf({flag}));
            for (std::string line; std::getline(in, line);) {
                size_t eq = line.find(" =");
                if (eq != std::string::npos)
                    explicit_[line.substr(0, eq)] = trimmed(line.substr(eq + 2));
            }
        }
    }
    bool is_explicit(const std::string &name) const { return explicit_.count(name) != 0; }
    /* value - the setting in effect: main.cf's or the -o's, else Postfix's default */
    std::string value(const std::string &name) const
    {
        auto it = explicit_.find(name);
        if (it != explicit_.end()) return it->second;
        return master(name) ? "" : get(name);
    }
    void set(const std::string &name, const std::string &value)
    {
        (master(name) ? set_master_ : set_main_).push_back(name + "=" + value);
    }
    void drop(const std::string &name)
    {
        (master(name) ? drop_master_ : drop_main_).push_back(name);
    }
    void write() const
    {
        for (const auto &[flag, args] : {std::pair{"-e", &set_main_},
                                         {"-X", &drop_main_},
                                         {"-P", &set_master_},
                                         {"-PX", &drop_master_}}) {
            if (args->empty()) continue;
            std::vector<std::string> all{flag};
            all.insert(all.end(), args->begin(), args->end());
            postconf(all);
        }
    }

  private:
    static bool master(const std::string &name) { return name.find('/') != std::string::npos; }
    std::map<std::string, std::string> explicit_;
    std::vector<std::string> set_main_, drop_main_, set_master_, drop_master_;
};

/* Record - for each setting setup changed: the value it wrote, and whether main.cf or
 * master.cf had it before, with which value.  remove undoes a change only while the
 * setting still has setup's value; a setting setup found as it wanted it is the
 * administrator's and stays. */
struct Change {
    std::string wrote;
    bool absent = true; /* not set in main.cf or master.cf before setup */
    std::string before;
};
using Record = std::map<std::string, Change>;

std::string record_path()
{
    return get("config_directory") + "/" + SETUP_RECORD;
}

/* read_record - NAME, the value written, "absent" or "was" and the value before, split by
 * tabs; lines of another form are ignored */
Record read_record(const std::string &path)
{
    Record r;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        size_t from = 0;
        for (size_t tab; f.size() < 3 && (tab = line.find('\t', from)) != std::string::npos;
             from = tab + 1)
            f.push_back(line.substr(from, tab - from));
        f.push_back(line.substr(from));
        if (f.size() == 3 && f[2] == "absent")
            r[f[0]] = {f[1], true, ""};
        else if (f.size() == 4 && f[2] == "was")
            r[f[0]] = {f[1], false, f[3]};
    }
    return r;
}

void write_record(const std::string &path, const Record &r)
{
    std::ostringstream out;
    out << "# keyseal-admin postfix setup: each setting it changed, the value it wrote and "
           "what was there before;\n# keyseal-admin postfix remove undoes what still has "
           "setup's value\n";
    for (const auto &[name, c] : r)
        out << name << '\t' << c.wrote << '\t' << (c.absent ? "absent" : "was\t" + c.before)
            << '\n';
    if (replace_file(path, out.str()) != 0)
        throw Problem("cannot write " + path + ": " + strerror(errno) +
                      "; postfix remove will leave setup's settings in place");
}

/* copy_configuration - main.cf and master.cf copied to NAME.keyseal-STAMP (a counter added
 * within one second); the pairs beyond the newest COPIES_KEPT removed.  The copies made. */
std::vector<std::string> copy_configuration(const std::string &dir)
{
    const std::string stamp = file_stamp();
    std::string suffix = stamp;
    for (int n = 2; std::filesystem::exists(dir + "/main.cf" + COPY_STEM + suffix) && n < 10; n++)
        suffix = stamp + "." + std::to_string(n);
    std::vector<std::string> kept;
    for (const char *file : {"main.cf", "master.cf"}) {
        std::string from = dir + "/" + file, to = from + COPY_STEM + suffix;
        std::error_code ec;
        std::filesystem::copy_file(from, to, ec);
        if (ec)
            throw Problem("cannot keep a copy of " + from + " as " + to + ": " + ec.message() +
                          "; nothing was changed");
        kept.push_back(to);
    }
    /* a stamp sorts in time order, and a counter after the stamp it extends */
    std::vector<std::string> stamps;
    std::string stem = std::string("main.cf") + COPY_STEM;
    for (const auto &e : std::filesystem::directory_iterator(dir)) {
        std::string name = e.path().filename();
        if (name.rfind(stem, 0) == 0 && name.size() > stem.size() &&
            isdigit((unsigned char)name[stem.size()]))
            stamps.push_back(name.substr(stem.size()));
    }
    std::sort(stamps.rbegin(), stamps.rend());
    for (size_t i = COPIES_KEPT; i < stamps.size(); i++)
        for (const char *file : {"main.cf", "master.cf"}) {
            std::string old = dir + "/" + file + COPY_STEM + stamps[i];
            if (unlink(old.c_str()) == 0) printf("removed old copy: %s\n", old.c_str());
        }
    return kept;
}

/* check_socket - the milter's socket: something listens there, Postfix's user reaches it,
 * and an inet socket is not open to other hosts */
void check_socket(const keyseal_milter::Config &c, const Socket &sock, Report &report)
{
    const std::string stopped = std::string("keyseal-milter is not running: ");
    const std::string start = "; start it: " + std::string(START_MILTER);
    if (sock.path.empty()) {
        std::string where = sock.postfix;
        int err = connect_errno(sock.host, sock.port);
        if (err == ECONNREFUSED)
            report.error(stopped + "nothing listens on " + where + start);
        else if (err != 0)
            report.error("cannot connect to " + where + ": " + strerror(err));
        else
            report.ok("keyseal-milter answers on " + where);
        if (!host_on_loopback(sock.host))
            report.warning(c.path + " has keyseal-milter listen on " + c.socket +
                           ", not on loopback: whoever can reach it can have any message signed "
                           "with this server's keys; write socket inet:" +
                           sock.port +
                           "@127.0.0.1 (or the default unix socket), or list the hosts allowed "
                           "in clients and keep all others out with a firewall");
        else
            report.note("an inet socket on loopback lets every local user have any message "
                        "signed, whatever the key files' modes; the default unix socket " +
                        std::string(MILTER_DEFAULT_SOCKET) + " reaches Postfix alone");
        return;
    }
    if (access(sock.path.c_str(), F_OK) != 0) {
        report.error(stopped + "no socket " + errno_text(sock.path) + start);
        return;
    }
    Access postfix(get("mail_owner"));
    int err = postfix.errors({{sock.path, Access::CONNECT}})[0];
    if (err == 0)
        report.ok("user " + postfix.user + " can connect to " + sock.path);
    else if (err == ECONNREFUSED)
        report.error(stopped + "nothing listens on " + sock.path + " (a socket file left behind)" +
                     start);
    else
        report.error("user " + postfix.user + " cannot connect to " + sock.path + ": " +
                     strerror(err) + "; the socket's directory must be setgid group " +
                     postfix.group + " (install -d -o " + MILTER_USER + " -g " + postfix.group +
                     " -m 2750 " + sock.path.substr(0, sock.path.rfind('/')) + ")");
}

/* postfix_version - mail_version as major * 100 + minor (3.6 is 306) */
int postfix_version()
{
    int major = 0, minor = 0;
    sscanf(postconf({"-dh", "mail_version"}).c_str(), "%d.%d", &major, &minor);
    return major * 100 + minor;
}

/* name_values - postconf's "NAME = VALUE" lines (an empty value too) as NAME and VALUE */
std::vector<std::pair<std::string, std::string>> name_values(const std::string &text)
{
    std::vector<std::pair<std::string, std::string>> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        size_t eq = line.find(" =");
        if (eq != std::string::npos)
            out.emplace_back(line.substr(0, eq), trimmed(line.substr(eq + 2)));
    }
    return out;
}

/* Master - master.cf's services (SERVICE/TYPE, and the first word of the command), and a
 * setting as a service has it: its -o (postconf -Px), else main.cf's (postconf -xh) */
class Master
{
  public:
    Master()
    {
        for (const auto &[name, value] : name_values(postconf({"-Px"})))
            o_[name] = value;
        const std::string tail = "/command";
        for (const auto &[name, value] : name_values(postconf({"-F", "*/*/command"})))
            if (name.size() > tail.size() &&
                name.compare(name.size() - tail.size(), tail.size(), tail) == 0)
                services.emplace_back(name.substr(0, name.size() - tail.size()),
                                      value.substr(0, value.find(' ')));
    }
    std::vector<std::pair<std::string, std::string>> services; /* SERVICE/TYPE, command */
    bool overrides(const std::string &service, const std::string &name) const
    {
        return o_.count(service + "/" + name) != 0;
    }
    std::string setting(const std::string &service, const std::string &name)
    {
        auto it = o_.find(service + "/" + name);
        return it != o_.end() ? it->second : main_cf(name);
    }
    std::string main_cf(const std::string &name)
    {
        auto it = main_.find(name);
        if (it == main_.end()) it = main_.emplace(name, postconf({"-xh", name})).first;
        return it->second;
    }
    /* places - where name is set: main.cf ("" with its value) and each service's -o */
    std::vector<std::pair<std::string, std::string>> places(const std::string &name)
    {
        std::vector<std::pair<std::string, std::string>> out{{"", main_cf(name)}};
        for (const auto &[service, command] : services)
            if (overrides(service, name)) out.emplace_back(service, o_[service + "/" + name]);
        return out;
    }

  private:
    std::map<std::string, std::string> o_, main_; /* -o: SERVICE/TYPE/NAME */
};

/* check_sender_login - keyseal signs for the envelope sender's domain: whoever may choose
 * any envelope sender may have mail signed as any domain this server hosts.  For each
 * smtpd with SASL on, its restrictions must compare the login with the sender through a
 * map; sendmail's users are held to their addresses by local_login_sender_maps. */
void check_sender_login(Master &m, Report &report)
{
    auto setting = [&](const std::string &service, const std::string &name) {
        return m.setting(service, name);
    };
    static const char *restrictions[] = {
        "smtpd_sender_restrictions", "smtpd_recipient_restrictions", "smtpd_relay_restrictions"};
    for (const auto &[service, command] : m.services) {
        if (command != "smtpd" || setting(service, "smtpd_sasl_auth_enable") != "yes") continue;
        bool guarded = false;
        for (const char *r : restrictions)
            for (const auto &word : list(setting(service, r)))
                guarded |= word == "reject_sender_login_mismatch" ||
                           word == "reject_authenticated_sender_login_mismatch";
        bool mapped = !setting(service, "smtpd_sender_login_maps").empty();
        if (guarded && mapped) {
            report.ok(service + " (SASL on) rejects a sender the login does not own "
                                "(reject_sender_login_mismatch, smtpd_sender_login_maps)");
            continue;
        }
        std::string fix;
        if (!mapped)
            fix = "list each login's addresses in a map (smtpd_sender_login_maps = "
                  "hash:/etc/postfix/sender_login, lines 'ADDRESS-or-@DOMAIN LOGIN', then "
                  "postmap it)";
        if (!guarded) {
            std::string where =
                m.overrides(service, "smtpd_sender_restrictions")
                    ? " in master.cf's -o smtpd_sender_restrictions of " + service
                    : " (postconf -e 'smtpd_sender_restrictions = "
                      "reject_sender_login_mismatch" +
                          std::string(get("smtpd_sender_restrictions").empty()
                                          ? ""
                                          : ", " + get("smtpd_sender_restrictions")) +
                          "')";
            fix += (fix.empty() ? "" : " and ") +
                   std::string("put reject_sender_login_mismatch in smtpd_sender_restrictions") +
                   where;
        }
        report.warning(service +
                       " has SASL on and no reject_sender_login_mismatch with a "
                       "smtpd_sender_login_maps: any authenticated user can have mail "
                       "signed as any hosted domain; fix: " +
                       fix);
    }

    if (postfix_version() < 306) {
        report.note("Postfix " + postconf({"-dh", "mail_version"}) +
                    " cannot hold local users to their sender addresses (local_login_sender_maps "
                    "needs 3.6): any user who can run sendmail can have mail signed as any "
                    "hosted domain");
        return;
    }
    std::string local = get("local_login_sender_maps");
    if (local == "static:*")
        report.warning("local_login_sender_maps = static:*: any local user of sendmail (a web "
                       "application too) can have mail signed as any hosted domain; fix: "
                       "postconf -e 'local_login_sender_maps = inline:{ { root = * }, { postfix "
                       "= * } }, hash:/etc/postfix/local_senders' with lines 'LOGIN ADDRESS "
                       "@DOMAIN...' in local_senders, then postmap it");
    else
        report.ok("local_login_sender_maps = " + local +
                  ": sendmail holds local users to their sender addresses");
}

/* braced_list - a Postfix list's items as Postfix splits them: at commas and white space,
 * except inside braces ("inline:{ a=b, c=d }" is one item) */
std::vector<std::string> braced_list(const std::string &value)
{
    std::vector<std::string> out;
    std::string item;
    int depth = 0;
    for (char ch : value) {
        if (depth == 0 && (ch == ',' || isspace((unsigned char)ch))) {
            if (!item.empty()) out.push_back(item);
            item.clear();
            continue;
        }
        depth += ch == '{' ? 1 : ch == '}' && depth > 0 ? -1 : 0;
        item += ch;
    }
    if (!item.empty()) out.push_back(item);
    return out;
}

/* unbraced - "{ text }" as "text" */
std::string unbraced(const std::string &s)
{
    std::string t = trimmed(s);
    return t.size() >= 2 && t.front() == '{' && t.back() == '}' ? trimmed(t.substr(1, t.size() - 2))
                                                                : t;
}

std::string joined(const std::vector<std::string> &items, const char *separator)
{
    std::string out;
    for (const auto &item : items)
        out += (out.empty() ? "" : separator) + item;
    return out;
}

/* Rule - one rule of a content-check table: its line in the table's file (0 when it has
 * none), its pattern (with the delimiters) or key, and its action */
struct Rule {
    int line = 0;
    std::string key, action;
};

/* regex_rule - a regexp or pcre table's "/pattern/flags action" or "!/pattern/flags action";
 * false for if and endif, and for what is not a rule */
bool regex_rule(const std::string &text, Rule &r)
{
    size_t i = !text.empty() && text[0] == '!' ? 1 : 0;
    if (i >= text.size() || isalnum((unsigned char)text[i])) return false;
    size_t j = i + 1;
    while (j < text.size() && text[j] != text[i])
        j += text[j] == '\\' ? 2 : 1;
    if (j >= text.size()) return false;
    while (++j < text.size() && isalpha((unsigned char)text[j]))
        continue; /* the flags */
    r.key = text.substr(0, j);
    r.action = trimmed(text.substr(j));
    return true;
}

/* table_rules - a lookup table's rules: regexp:, pcre: and texthash: files (a line that
 * starts with white space continues the one before), inline: and static: values read here,
 * the indexed file types as postmap -s lists them; false, with why, when it cannot be read */
bool table_rules(std::string table, std::vector<Rule> &rules, std::string &why)
{
    if (table.rfind("proxy:", 0) == 0) table.erase(0, 6);
    size_t colon = table.find(':');
    std::string type = table.substr(0, colon),
                name = colon == std::string::npos ? "" : table.substr(colon + 1);
    bool regex = type == "regexp" || type == "pcre";
    auto add = [&](int line, const std::string &text, const char *separators) {
        Rule r;
        if (regex && !regex_rule(text, r)) return;
        if (!regex) {
            size_t at = text.find_first_of(separators);
            r.key = trimmed(text.substr(0, at));
            r.action = at == std::string::npos ? "" : trimmed(text.substr(at + 1));
        }
        r.line = line;
        rules.push_back(r);
    };
    if (type == "static") {
        rules.push_back({0, "", unbraced(name)});
        return true;
    }
    if (type == "inline" || (regex && name.rfind('{', 0) == 0)) {
        for (const auto &item : braced_list(unbraced(name)))
            add(0, unbraced(item), "=");
        return true;
    }
    if (regex || type == "texthash") {
        std::ifstream in(name);
        if (!in) {
            why = strerror(errno);
            return false;
        }
        std::string logical;
        int n = 0, first = 0;
        for (std::string line; std::getline(in, line);) {
            std::string text = trimmed(line);
            n++;
            if (text.empty() || text[0] == '#') continue;
            if (isspace((unsigned char)line[0]) && !logical.empty()) {
                logical += " " + text;
                continue;
            }
            if (!logical.empty()) add(first, logical, " \t");
            logical = text, first = n;
        }
        if (!logical.empty()) add(first, logical, " \t");
        return true;
    }
    /* only the file types: postmap -s would ask a database or a server of the others */
    static const char *const indexed[] = {"hash", "btree", "lmdb", "cdb", "dbm", "sdbm"};
    if (std::find(std::begin(indexed), std::end(indexed), type) == std::end(indexed)) {
        why = "keyseal-admin cannot list a " + type + ": table";
        return false;
    }
    Run r = run_program("/usr/sbin/postmap", {"-s", table}, {}, "");
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) {
        why = trimmed(r.err.substr(0, r.err.find('\n')));
        return false;
    }
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);)
        add(0, line, " \t");
    return true;
}

/* The actions of Postfix's content checks that change the line they match
 * (header_checks(5)); the others an SMTP or LMTP client takes only log, or are not
 * supported there */
const char *const REWRITES[] = {"IGNORE", "PREPEND", "REPLACE", "STRIP"};

/* rewrite - the action's name when it changes the message, else "" */
std::string rewrite(const std::string &action)
{
    std::string word = action.substr(0, action.find_first_of(" \t"));
    for (auto &ch : word)
        ch = (char)toupper((unsigned char)ch);
    for (const char *r : REWRITES)
        if (word == r) return word;
    return "";
}

/* rewrite_names - "IGNORE, PREPEND, REPLACE or STRIP" */
std::string rewrite_names()
{
    std::vector<std::string> names(std::begin(REWRITES), std::end(REWRITES) - 1);
    return joined(names, ", ") + " or " + std::end(REWRITES)[-1];
}

const char HEADER_NAME[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

/* pattern_header - the header a "/^Name:/" pattern matches alone; "" when it may match any */
std::string pattern_header(const std::string &key)
{
    if (key.size() < 3 || key[0] == '!' || key[1] != '^') return "";
    size_t end = key.find_first_not_of(HEADER_NAME, 2);
    return end > 2 && end != std::string::npos && key[end] == ':' ? key.substr(2, end - 2) : "";
}

/* written_header - the header a PREPEND or REPLACE writes; "" when its text has no plain
 * name (a $1 substitution) */
std::string written_header(const std::string &action)
{
    size_t at = action.find_first_of(" \t");
    std::string text = at == std::string::npos ? "" : trimmed(action.substr(at));
    size_t end = text.find_first_not_of(HEADER_NAME);
    return end > 0 && end != std::string::npos && text[end] == ':' ? text.substr(0, end) : "";
}

/* where - a setting as main.cf ("" service) or a master.cf -o has it */
std::string where(const std::string &service, const std::string &name, const std::string &value)
{
    return service.empty() ? name + " = " + value
                           : "master.cf's " + service + " -o " + name + "=" + value;
}

/* check_rewrites - the content checks of Postfix's SMTP and LMTP clients run after
 * keyseal-milter signed: a rule that changes a signed header, a MIME header or the body
 * breaks the signature.  A header rule on a header keyseal-milter does not sign (Received
 * stripped for privacy) is harmless. */
void check_rewrites(const keyseal_milter::Config &c, Master &m, Report &report)
{
    std::set<std::string> signed_headers{"dkim-signature"};
    for (const auto *names : {&c.headers, &c.oversign})
        for (std::string h : *names) {
            for (auto &ch : h)
                ch = (char)tolower((unsigned char)ch);
            signed_headers.insert(h);
        }
    auto unsigned_header = [&](std::string h) {
        for (auto &ch : h)
            ch = (char)tolower((unsigned char)ch);
        return !h.empty() && signed_headers.count(h) == 0;
    };
    for (const char *client : {"smtp_", "lmtp_"})
        for (const std::string kind :
             {"header_checks", "mime_header_checks", "nested_header_checks", "body_checks"}) {
            std::string name = client + kind;
            for (const auto &[service, value] : m.places(name)) {
                if (value.empty()) continue;
                std::string what = where(service, name, value);
                std::vector<std::string> found, tables = braced_list(value);
                bool unchecked = false;
                for (const auto &table : tables) {
                    std::vector<Rule> rules;
                    std::string why;
                    if (!table_rules(table, rules, why)) {
                        unchecked = true;
                        report.warning(what + ": " + table + " is unchecked (" + why +
                                       "): a rule there with " + rewrite_names() +
                                       " would change mail after keyseal-milter signed it, so "
                                       "that receivers cannot verify the signature; check its "
                                       "rules by hand");
                        continue;
                    }
                    for (const auto &r : rules) {
                        std::string word = rewrite(r.action);
                        if (word.empty() ||
                            (kind == "header_checks" &&
                             (word == "PREPEND" || unsigned_header(pattern_header(r.key))) &&
                             (word == "IGNORE" || word == "STRIP" ||
                              unsigned_header(written_header(r.action)))))
                            continue;
                        found.push_back(
                            (tables.size() > 1 ? table + " " : "") +
                            (r.line ? "line " + std::to_string(r.line) : "'" + r.key + "'") + " (" +
                            word + ")");
                    }
                }
                const size_t shown = 5, n = found.size();
                if (n > shown) {
                    found.resize(shown);
                    found.push_back("and " + std::to_string(n - shown) + " more");
                }
                if (n > 0)
                    report.error(
                        what + ": " + joined(found, ", ") + (n == 1 ? " changes" : " change") +
                        " mail after keyseal-milter signed it, so that receivers cannot verify "
                        "the signature; fix: take " +
                        (n == 1 ? "that rule" : "those rules") + " out" +
                        (kind == "header_checks" ? " (a header keyseal-milter does not sign, "
                                                   "such as Received, may be changed)"
                                                 : "") +
                        ", or " +
                        (service.empty() ? "postconf -X " + name
                                         : "postconf -P '" + service + "/" + name + "='"));
                else if (!unchecked)
                    report.ok(what + ": no rule changes " +
                              (kind == "header_checks" ? "a signed header" : "the message"));
            }
        }
}

/* signed_line_limit - the longest line keyseal-milter leaves as it is in a message it signs:
 * with long_lines fold, the limit recorded from Postfix that it folds to (0: it folds
 * none); with warn, it folds none, so any line mail may carry (998 characters) */
int signed_line_limit(const keyseal_milter::Config &c)
{
    return c.long_lines == keyseal_milter::LongLines::FOLD ? c.line_length_limit : 998;
}

/* check_line_limits - Postfix's SMTP and LMTP clients break a line longer than their limit
 * after keyseal-milter signed it */
void check_line_limits(const keyseal_milter::Config &c, Master &m, Report &report)
{
    const int longest = signed_line_limit(c);
    const bool folds = c.long_lines == keyseal_milter::LongLines::FOLD;
    for (const std::string client : {"smtp", "lmtp"}) {
        std::string name = client + "_line_length_limit";
        for (const auto &[service, value] : m.places(name)) {
            long limit = strtol(value.c_str(), nullptr, 10);
            /* folding to another limit than Postfix's: its client breaks what is left
             * longer after signing, or lines are folded that Postfix would have sent whole */
            if (folds && limit != longest) {
                bool breaks = limit > 0 && (longest == 0 || limit < longest);
                /* the limit is recorded from the SMTP client's: the LMTP client's matters
                 * only where it breaks what keyseal-milter left */
                if (!breaks && client == "lmtp") continue;
                std::string text =
                    where(service, name, value) + ": Postfix's " +
                    (client == "smtp" ? "SMTP" : "LMTP") + " client breaks " +
                    (limit > 0 ? "lines longer than " + value + " characters" : "no line") +
                    ", keyseal-milter folds " +
                    (longest > 0 ? "lines longer than " + std::to_string(longest) : "none") +
                    " (line_length_limit in " + c.path + ")" +
                    (breaks ? ", so that receivers cannot verify the signature of a message with "
                              "a line between the two"
                            : ": lines are folded that Postfix would send whole") +
                    "; fix: keyseal-admin postfix setup records smtp_line_length_limit";
                breaks ? report.error(text) : report.warning(text);
                continue;
            }
            if (limit <= 0 || limit >= longest) continue;
            report.error(where(service, name, value) + ": Postfix's " +
                         (client == "smtp" ? "SMTP" : "LMTP") +
                         " client breaks each line longer than " + value +
                         " characters after keyseal-milter signed it (keyseal-milter leaves lines "
                         "of up to " +
                         std::to_string(longest) +
                         " as they are), so that receivers cannot verify the signature of a "
                         "message with such a line; fix: " +
                         (service.empty() ? "postconf -X " + name
                                          : "postconf -PX '" + service + "/" + name + "'") +
                         " (Postfix's default: " + postconf({"-dh", name}) + ")");
        }
    }
}

/* check_milter_passes - mail that a content filter gives back to Postfix is handed to the
 * milters again, unless the service that takes it back has no_milters.  On that second
 * pass keyseal-milter sees the filter as the client (or, through sendmail, a local
 * submission): it would sign mail from the Internet too.  no_milters on a service that
 * receives the original mail leaves that mail unsigned, for the second pass cannot tell who
 * sent it. */
void check_milter_passes(const Socket &sock, Master &m, Report &report)
{
    auto has = [](const std::string &value, const std::string &item) {
        auto items = list(value);
        return std::find(items.begin(), items.end(), item) != items.end();
    };
    auto without = [](const std::string &value) {
        std::vector<std::string> kept;
        for (const auto &o : list(value))
            if (o != "no_milters") kept.push_back(o);
        return joined(kept, ",");
    };
    const std::string NO_MILTERS_BACK = "give no_milters to the smtpd that takes mail back from "
                                        "the content filter alone";
    const std::string filter = m.main_cf("content_filter");
    std::set<std::string> filters;
    std::vector<std::string> back, inherit;
    if (!filter.empty()) filters.insert(filter);
    for (const auto &[service, command] : m.services) {
        if (command != "smtpd" && command != "pickup" && command != "qmqpd") continue;
        std::string own = m.setting(service, "content_filter"),
                    options = m.setting(service, "receive_override_options");
        /* an smtpd on a loopback address, or one exempted from main.cf's filter, takes
         * mail back from the filter */
        size_t colon = service.rfind(':', service.rfind('/'));
        std::string host = colon == std::string::npos ? "" : service.substr(0, colon);
        if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
        if (command == "smtpd" &&
            ((!host.empty() && host_on_loopback(host)) || (!filter.empty() && own.empty()))) {
            std::string milters = m.setting(service, "smtpd_milters");
            if (!has(options, "no_milters") &&
                (has(milters, sock.postfix) || has(milters, sock.outside)))
                back.push_back(service);
            continue;
        }
        if (!own.empty()) filters.insert(own);
        if (!has(options, "no_milters")) continue;
        if (!m.overrides(service, "receive_override_options")) {
            inherit.push_back(service);
            continue;
        }
        std::string rest = without(options);
        report.error("master.cf's " + service + " has -o receive_override_options=" + options +
                     ": the mail it receives never reaches keyseal-milter and goes out unsigned "
                     "(back from a content filter, it can no longer tell who sent it); fix: " +
                     (rest.empty()
                          ? "postconf -PX '" + service + "/receive_override_options'"
                          : "postconf -P '" + service + "/receive_override_options=" + rest + "'") +
                     ", and " + NO_MILTERS_BACK);
    }
    if (!inherit.empty()) {
        std::string options = m.main_cf("receive_override_options"), rest = without(options);
        report.error("main.cf sets receive_override_options = " + options + ": the mail " +
                     joined(inherit, ", ") +
                     " receive never reaches keyseal-milter and goes out unsigned (back from a "
                     "content filter, it can no longer tell who sent it); fix: " +
                     (rest.empty() ? "postconf -X receive_override_options"
                                   : "postconf -e 'receive_override_options = " + rest + "'") +
                     ", and " + NO_MILTERS_BACK +
                     " (its -o receive_override_options in master.cf)");
    }
    if (filters.empty()) return;
    const std::string hazard =
        ": every message the filter hands back passes keyseal-milter a second time, ";
    for (const auto &service : back) {
        std::string options = joined(list(m.setting(service, "receive_override_options")), ",");
        report.error("master.cf's " + service + " takes mail back from the content filter (" +
                     joined({filters.begin(), filters.end()}, ", ") +
                     ") with keyseal-milter in its smtpd_milters" + hazard +
                     "as from the filter's address: once the whitelist admits it, mail from "
                     "the Internet with a hosted domain's sender is signed too; fix: postconf "
                     "-P '" +
                     service + "/receive_override_options=" + options +
                     (options.empty() ? "" : ",") + "no_milters'");
    }
    /* a filter that pipe runs gives mail back with sendmail, as a local submission */
    for (const auto &f : filters) {
        std::string transport = f.substr(0, f.find(':')) + "/unix";
        for (const auto &[service, command] : m.services)
            if (service == transport && command == "pipe")
                report.error("content_filter " + f + " hands mail to master.cf's " + service +
                             ", a pipe command, whose filter gives it back with sendmail" + hazard +
                             "as a local submission: mail from the Internet with a hosted "
                             "domain's sender is signed too; fix: have the filter give mail "
                             "back through SMTP, to an smtpd with -o "
                             "receive_override_options=no_milters");
    }
}

} // namespace

int cmd_postfix_setup()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    std::string dir = get("config_directory");
    Settings settings;
    Record record = read_record(record_path());
    std::vector<std::string> lines;
    /* a record outlives its setup when main.cf was replaced or the milter taken out by
     * hand: it then describes a configuration that is gone */
    bool named = false;
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"})
        for (const auto &m : list(settings.value(name)))
            named |= m == sock.postfix;
    if (!named) record.clear();

    /* change - name set to value; a change remembered with what was there before, unless
     * an earlier setup's record already holds that */
    auto change = [&](const std::string &name, const std::string &value, const std::string &what,
                      const std::string &why) {
        std::string old = settings.value(name);
        if (old == value) {
            lines.push_back("unchanged: " + what + value);
            return;
        }
        /* what was there before: an earlier setup's record while the setting still has
         * the value that setup wrote, else what is there now */
        auto it = record.find(name);
        if (it == record.end() || it->second.wrote != old)
            record[name] = {value, !settings.is_explicit(name), old};
        record[name].wrote = value;
        settings.set(name, value);
        lines.push_back("changed: " + what + value +
                        (why.empty() ? " (was: " + (old.empty() ? "empty" : old) + ")" : why));
    };
    for (const std::string name : {"smtpd_milters", "non_smtpd_milters"})
        change(name, milter_list(settings.value(name), sock, true), name + " = ", "");
    change("milter_default_action", c.strict ? "tempfail" : "accept",
           "milter_default_action = ", "");
    change("disable_mime_output_conversion", "yes", "disable_mime_output_conversion = ", "");
    change(CLEANUP_MARK, MILTER_LOCAL_MARK, "master.cf cleanup -o milter_macro_daemon_name=",
           " (marks mail submitted with sendmail)");
    lines.push_back(record_line_limit(MILTER_CONF_PATH, get("smtp_line_length_limit")));

    std::vector<std::string> kept = copy_configuration(dir);
    write_record(record_path(), record); /* first: remove must know what setup wrote */
    settings.write();
    for (const auto &line : lines)
        printf("%s\n", line.c_str());
    printf("kept copies: %s %s\n", kept[0].c_str(), kept[1].c_str());
    reload_if_running();
    printf("next: keyseal-admin postfix check\n");
    return EXIT_OK;
}

int cmd_postfix_remove()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    std::string path = record_path();
    Record record = read_record(path);
    Settings settings;
    std::vector<std::string> lines;

    /* put - name back to value, or out of main.cf/master.cf when absent */
    auto put = [&](const std::string &name, bool absent, const std::string &value) {
        if (absent) {
            if (!settings.is_explicit(name)) return;
            settings.drop(name);
            lines.push_back("removed: " + name);
        } else if (!settings.is_explicit(name) || settings.value(name) != value) {
            settings.set(name, value);
            lines.push_back("restored: " + name + " = " + value);
        }
    };
    /* the milter lists: ours out, the site's own milters kept; a list left empty goes
     * unless main.cf had it before setup */
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        std::string old = settings.value(name), value = milter_list(old, sock, false);
        auto it = record.find(name);
        if (it == record.end() && list(value) == list(old)) continue; /* setup's hands off */
        bool had = it != record.end() && !it->second.absent;
        if (had && list(value) == list(it->second.before))
            put(name, false, it->second.before);
        else if (list(value).empty())
            put(name, !had, "");
        else if (value != old)
            put(name, false, value);
    }
    for (const std::string name :
         {"milter_default_action", "disable_mime_output_conversion", CLEANUP_MARK}) {
        auto it = record.find(name);
        std::string now = settings.value(name);
        if (it == record.end()) {
            /* the local mark is keyseal's whoever wrote it */
            if (name == CLEANUP_MARK && now == MILTER_LOCAL_MARK) put(name, true, "");
        } else if (now != it->second.wrote) {
            lines.push_back("kept: " + name + " = " + now +
                            " (changed since keyseal-admin postfix setup)");
        } else {
            put(name, it->second.absent, it->second.before);
        }
    }
    settings.write();
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        throw Problem("cannot remove " + errno_text(path));
    for (const auto &line : lines)
        printf("%s\n", line.c_str());
    if (lines.empty())
        printf("Postfix has no setting of keyseal-admin postfix setup: nothing to change\n");
    reload_if_running();
    return EXIT_OK;
}

int cmd_postfix_check()
{
    keyseal_milter::Config c = milter_config();
    Report report;
    bool chroot = same_chroot();
    Socket sock = socket_for(c, chroot);
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        auto milters = list(get(name));
        bool ours = false, outside = false;
        for (const auto &m : milters) {
            ours |= m == sock.postfix, outside |= m == sock.outside && m != sock.postfix;
            /* Postfix reaching keyseal-milter's port at an outside address: the milter
             * listens there too */
            size_t colon = m.rfind(':');
            if (m.rfind("inet:", 0) != 0 || colon <= 5 || m == sock.postfix || sock.port.empty() ||
                m.substr(colon + 1) != sock.port)
                continue;
            std::string host = m.substr(5, colon - 5);
            if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
            if (!host_on_loopback(host))
                report.warning(std::string(name) + " reaches keyseal-milter's port at " + m +
                               ", not on loopback: whoever can reach it can have any message "
                               "signed with this server's keys; use inet:127.0.0.1:" +
                               sock.port);
        }
        const char *what =
            name[0] == 's' ? "mail from SMTP clients" : "mail submitted with sendmail";
        if (ours)
            report.ok(std::string(name) + " names keyseal-milter (" + sock.postfix + "): " + what +
                      " is signed");
        else if (outside)
            report.error(std::string(name) + " names " + sock.outside +
                         ", the path as seen outside the chroot of a chrooted " +
                         (name[0] == 's' ? "smtpd" : "cleanup") + ": write " + sock.postfix +
                         " (keyseal-admin postfix setup does)");
        else
            report.error(std::string(name) + " lacks " + sock.postfix + ": " + what +
                         " goes out unsigned; run keyseal-admin postfix setup");
    }
    check_socket(c, sock, report);
    std::string action = get("milter_default_action");
    if (action == "accept")
        report.ok("milter_default_action = accept: while keyseal-milter is down, mail goes out "
                  "unsigned");
    else if (action == "tempfail")
        report.note("milter_default_action = tempfail: while keyseal-milter is down, all mail "
                    "is held and retried (not a problem by itself)");
    else
        report.warning("milter_default_action = " + action +
                       ": while keyseal-milter is down, mail is refused or discarded; accept "
                       "or tempfail is usual");
    if (get("disable_mime_output_conversion") == "yes")
        report.ok("disable_mime_output_conversion = yes: signed 8-bit bodies are not converted");
    else
        report.error("disable_mime_output_conversion = no: Postfix converts an 8-bit body for a "
                     "relay without 8BITMIME after signing, which breaks the signature; run "
                     "postconf -e disable_mime_output_conversion=yes");

    Master master;
    check_rewrites(c, master, report);
    check_line_limits(c, master, report);
    check_milter_passes(sock, master, report);

    /* the local mark: on cleanup alone, never where an smtpd would send it */
    bool marked = false;
    std::istringstream overrides(postconf({"-P"}));
    for (std::string line; std::getline(overrides, line);) {
        size_t eq = line.find(" = ");
        if (eq == std::string::npos || trimmed(line.substr(eq + 3)) != MILTER_LOCAL_MARK) continue;
        std::string where = line.substr(0, eq);
        if (where == CLEANUP_MARK)
            marked = true;
        else
            report.error("master.cf gives " + where.substr(0, where.rfind('/')) +
                         " the local mark " + MILTER_LOCAL_MARK +
                         ": its clients' mail would count as local submission; "
                         "remove that -o");
    }
    if (get("milter_macro_daemon_name") == MILTER_LOCAL_MARK)
        report.error(std::string("main.cf sets milter_macro_daemon_name = ") + MILTER_LOCAL_MARK +
                     ": every smtpd's clients would count as local submission; remove it");
    if (marked)
        report.ok(std::string("cleanup marks mail submitted with sendmail (") + MILTER_LOCAL_MARK +
                  ")");
    else
        report.error("cleanup does not mark local submissions: mail sent with sendmail is not "
                     "signed; run keyseal-admin postfix setup");

    check_sender_login(master, report);

    if (getpwnam(MILTER_USER) == nullptr) {
        report.error(std::string("no user ") + MILTER_USER + ": install the keyseal package");
        return report.exit_status();
    }
    Access keyseal(MILTER_USER);
    for (const auto &[domain, selector] : all_keys())
        keyseal.check_key(key_path(domain, selector), report);
    keyseal.check_files(report);
    /* the first week's trip-up: programs on this server sending through SMTP without AUTH */
    if (long n = loopback_unsigned({MAILLOG_DEFAULT}); n > 0)
        report.warning(std::to_string(n) + " messages from SMTP clients at loopback addresses " +
                       "(programs on this server) went out unsigned (" MAILLOG_DEFAULT
                       "); to have them signed, " +
                       LOOPBACK_HINT);
    return report.exit_status();
}

} // namespace keyseal_admin
