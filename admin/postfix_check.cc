#include "admin/postfix_check.h"

#include "admin/access.h"
#include "admin/files.h"
#include "admin/maillog.h"
#include "admin/names.h"
#include "admin/postfix_conf.h"
#include "admin/report.h"

#include "net/ip_network.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

const char START_MILTER[] = "systemctl start keyseal-milter";

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

/* check_socket - the milter's socket: something listens there, Postfix's user reaches it,
 * and an inet socket is not open to other hosts */
void check_socket(const keyseal_milter::Config &c, const Socket &sock, Findings &report)
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
    Access postfix(postconf_value("mail_owner"));
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

/* check_sender_login - keyseal signs for the envelope sender's domain: whoever may choose
 * any envelope sender may have mail signed as any domain this server hosts.  For each
 * smtpd with SASL on, its restrictions must compare the login with the sender through a
 * map; sendmail's users are held to their addresses by local_login_sender_maps. */
void check_sender_login(Master &m, Findings &report)
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
            for (const auto &word : postfix_list(setting(service, r)))
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
                          std::string(postconf_value("smtpd_sender_restrictions").empty()
                                          ? ""
                                          : ", " + postconf_value("smtpd_sender_restrictions")) +
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
    std::string local = postconf_value("local_login_sender_maps");
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

std::string joined(const std::vector<std::string> &items, const char *separator)
{
    std::string out;
    for (const auto &item : items)
        out += (out.empty() ? "" : separator) + item;
    return out;
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
void check_rewrites(const keyseal_milter::Config &c, Master &m, Findings &report)
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

/* check_line_limits - Postfix's SMTP and LMTP clients break a line longer than their limit
 * after keyseal-milter signed it */
void check_line_limits(const keyseal_milter::Config &c, Master &m, Findings &report)
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
void check_milter_passes(const Socket &sock, Master &m, Findings &report)
{
    auto has = [](const std::string &value, const std::string &item) {
        auto items = postfix_list(value);
        return std::find(items.begin(), items.end(), item) != items.end();
    };
    auto without = [](const std::string &value) {
        std::vector<std::string> kept;
        for (const auto &o : postfix_list(value))
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
        std::string options =
            joined(postfix_list(m.setting(service, "receive_override_options")), ",");
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

int cmd_postfix_check()
{
    keyseal_milter::Config c = milter_config();
    Findings report;
    bool chroot = same_chroot();
    Socket sock = socket_for(c, chroot);
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        auto milters = postfix_list(postconf_value(name));
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
    std::string action = postconf_value("milter_default_action");
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
    if (postconf_value("disable_mime_output_conversion") == "yes")
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
    if (postconf_value("milter_macro_daemon_name") == MILTER_LOCAL_MARK)
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
