#include "admin/admin.h"
#include "admin/maillog.h"
#include "admin/report.h"

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

/* check_sender_login - keyseal signs for the envelope sender's domain: whoever may choose
 * any envelope sender may have mail signed as any domain this server hosts.  For each
 * smtpd with SASL on, its restrictions must compare the login with the sender through a
 * map; sendmail's users are held to their addresses by local_login_sender_maps. */
void check_sender_login(Report &report)
{
    std::map<std::string, std::string> main_cf, overrides; /* -o: SERVICE/TYPE/NAME */
    std::istringstream o(postconf({"-Px"}));
    for (std::string line; std::getline(o, line);) {
        size_t eq = line.find(" = ");
        if (eq != std::string::npos) overrides[line.substr(0, eq)] = trimmed(line.substr(eq + 3));
    }
    auto setting = [&](const std::string &service, const std::string &name) {
        auto it = overrides.find(service + "/" + name);
        if (it != overrides.end()) return it->second;
        if (!main_cf.count(name)) main_cf[name] = postconf({"-xh", name});
        return main_cf[name];
    };
    static const char *restrictions[] = {
        "smtpd_sender_restrictions", "smtpd_recipient_restrictions", "smtpd_relay_restrictions"};
    std::istringstream services(postconf({"-F", "*/*/command"}));
    for (std::string line; std::getline(services, line);) {
        size_t eq = line.find("/command = ");
        if (eq == std::string::npos) continue;
        std::string service = line.substr(0, eq), command = trimmed(line.substr(eq + 11));
        if (command.substr(0, command.find(' ')) != "smtpd" ||
            setting(service, "smtpd_sasl_auth_enable") != "yes")
            continue;
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
                overrides.count(service + "/smtpd_sender_restrictions")
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

    check_sender_login(report);

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
