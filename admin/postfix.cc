#include "admin/admin.h"
#include "admin/maillog.h"
#include "admin/report.h"

#include "milter/milter_conf.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <pwd.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

const char POSTCONF[] = "/usr/sbin/postconf";
const char CLEANUP_MARK[] = "cleanup/unix/milter_macro_daemon_name";

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
    std::string postfix; /* the value Postfix's smtpd and cleanup must be given */
    std::string outside; /* a unix socket's path as seen outside the chroot, or "" */
    std::string path;    /* the socket file, or "" for an inet socket */
};

/* socket - the milter's socket as Postfix names it: a chrooted smtpd and cleanup see the
 * queue directory as / */
Socket socket_for(const keyseal_milter::Config &c, bool chroot)
{
    Socket s;
    std::string v = c.socket;
    for (const char *unix_prefix : {"unix:", "local:"}) {
        if (v.rfind(unix_prefix, 0) != 0) continue;
        s.path = v.substr(strlen(unix_prefix));
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
    /* the milter's inet:PORT@HOST is Postfix's inet:HOST:PORT */
    size_t at = v.find('@');
    std::string port = v.substr(v.find(':') + 1,
                                at == std::string::npos ? std::string::npos : at - v.find(':') - 1);
    s.postfix = "inet:" + (at == std::string::npos ? "127.0.0.1" : v.substr(at + 1)) + ":" + port;
    return s;
}

keyseal_milter::Config milter_config()
{
    try {
        if (access(MILTER_CONF_PATH, F_OK) != 0) return {};
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

} // namespace

int cmd_postfix_setup()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    std::string dir = get("config_directory");

    char stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%S", localtime(&now));
    std::vector<std::string> kept;
    for (const char *file : {"main.cf", "master.cf"}) {
        std::string from = dir + "/" + file, to = from + ".keyseal-" + stamp;
        std::error_code ec;
        std::filesystem::copy_file(from, to, ec);
        if (ec)
            throw Problem("cannot keep a copy of " + from + " as " + to + ": " + ec.message() +
                          "; nothing was changed");
        kept.push_back(to);
    }

    auto change = [](const std::string &name, const std::string &old, const std::string &value) {
        if (old == value) {
            printf("unchanged: %s = %s\n", name.c_str(), value.c_str());
            return;
        }
        postconf({"-e", name + "=" + value});
        printf("changed: %s = %s (was: %s)\n", name.c_str(), value.c_str(),
               old.empty() ? "empty" : old.c_str());
    };
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        std::string old = get(name);
        change(name, old, milter_list(old, sock, true));
    }
    change("milter_default_action", get("milter_default_action"), c.strict ? "tempfail" : "accept");
    change("disable_mime_output_conversion", get("disable_mime_output_conversion"), "yes");
    std::string mark = postconf({"-Ph", CLEANUP_MARK});
    if (mark != MILTER_LOCAL_MARK) {
        postconf({"-P", std::string(CLEANUP_MARK) + "=" + MILTER_LOCAL_MARK});
        printf("changed: master.cf cleanup -o milter_macro_daemon_name=%s (marks mail "
               "submitted with sendmail)\n",
               MILTER_LOCAL_MARK);
    } else {
        printf("unchanged: master.cf cleanup -o milter_macro_daemon_name=%s\n", MILTER_LOCAL_MARK);
    }
    printf("kept copies: %s %s\n", kept[0].c_str(), kept[1].c_str());
    reload_if_running();
    printf("next: keyseal-admin postfix check\n");
    return EXIT_OK;
}

int cmd_postfix_remove()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    bool changed = false;
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        std::string old = get(name), value = milter_list(old, sock, false);
        if (value == old) continue;
        postconf({"-e", std::string(name) + "=" + value});
        printf("changed: %s = %s\n", name, value.c_str());
        changed = true;
    }
    if (!changed) printf("Postfix does not name keyseal-milter: nothing to change\n");
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
        for (const auto &m : milters)
            ours |= m == sock.postfix, outside |= m == sock.outside && m != sock.postfix;
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
    if (!sock.path.empty()) {
        if (access(sock.path.c_str(), F_OK) != 0) {
            report.error("no socket " + errno_text(sock.path) +
                         ": start keyseal-milter (systemctl start keyseal-milter)");
        } else {
            Access postfix(get("mail_owner"));
            int err = postfix.errors({{sock.path, Access::CONNECT}})[0];
            if (err == 0)
                report.ok("user " + postfix.user + " can connect to " + sock.path);
            else
                report.error("user " + postfix.user + " cannot connect to " + sock.path + ": " +
                             strerror(err) + "; the socket's directory must be setgid group " +
                             postfix.group + " (install -d -o " + MILTER_USER + " -g " +
                             postfix.group + " -m 2750 " +
                             sock.path.substr(0, sock.path.rfind('/')) + ")");
        }
    }
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
