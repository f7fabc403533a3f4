#include "admin/postfix_conf.h"

#include "admin/run.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

const char POSTCONF[] = "/usr/sbin/postconf";

bool chrooted(const std::string &service)
{
    std::string v = postconf({"-Fh", service + "/chroot"});
    return v == "y" || v == "yes";
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

} // namespace

std::string trimmed(std::string s)
{
    s.erase(s.find_last_not_of(" \t\r\n") + 1);
    s.erase(0, s.find_first_not_of(" \t\r\n"));
    return s;
}

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

std::string postconf_value(const std::string &name)
{
    return postconf({"-h", name});
}

std::vector<std::string> postfix_list(const std::string &value)
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

std::string unbraced(const std::string &s)
{
    std::string t = trimmed(s);
    return t.size() >= 2 && t.front() == '{' && t.back() == '}' ? trimmed(t.substr(1, t.size() - 2))
                                                                : t;
}

Socket socket_for(const keyseal_milter::Config &c, bool chroot)
{
    Socket s;
    std::string v = c.socket;
    s.path = c.socket_file();
    if (!s.path.empty()) {
        s.outside = "unix:" + s.path;
        std::string queue = postconf_value("queue_directory");
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

keyseal_milter::Config milter_config()
{
    try {
        return keyseal_milter::load(MILTER_CONF_PATH);
    } catch (const keyseal_milter::ConfigError &e) {
        throw Problem(std::string(e.what()) + ": fix it, then keyseal-milter --check-config");
    }
}

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

int postfix_version()
{
    int major = 0, minor = 0;
    sscanf(postconf({"-dh", "mail_version"}).c_str(), "%d.%d", &major, &minor);
    return major * 100 + minor;
}

Master::Master()
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

bool Master::overrides(const std::string &service, const std::string &name) const
{
    return o_.count(service + "/" + name) != 0;
}

std::string Master::setting(const std::string &service, const std::string &name)
{
    auto it = o_.find(service + "/" + name);
    return it != o_.end() ? it->second : main_cf(name);
}

std::string Master::main_cf(const std::string &name)
{
    auto it = main_.find(name);
    if (it == main_.end()) it = main_.emplace(name, postconf({"-xh", name})).first;
    return it->second;
}

std::vector<std::pair<std::string, std::string>> Master::places(const std::string &name)
{
    std::vector<std::pair<std::string, std::string>> out{{"", main_cf(name)}};
    for (const auto &[service, command] : services)
        if (overrides(service, name)) out.emplace_back(service, o_[service + "/" + name]);
    return out;
}

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

int signed_line_limit(const keyseal_milter::Config &c)
{
    return c.long_lines == keyseal_milter::LongLines::FOLD ? c.line_length_limit : 998;
}

} // namespace keyseal_admin
