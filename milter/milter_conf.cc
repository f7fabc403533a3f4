#include "milter/milter_conf.h"

#include "conf/hlx_conf.h"
#include "dkim/dk_key.h"
#include "net/ip_util.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <strings.h>
#include <sys/socket.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

namespace keyseal_milter
{

namespace
{

/* The fields a signer should sign when present, and those signed once more than they
 * occur so that a receiver sees any copy added later as a failed signature */
const std::vector<std::string> DEFAULT_HEADERS{"From",
                                               "Reply-To",
                                               "Subject",
                                               "Date",
                                               "To",
                                               "Cc",
                                               "Resent-Date",
                                               "Resent-From",
                                               "Resent-To",
                                               "Resent-Cc",
                                               "In-Reply-To",
                                               "References",
                                               "List-Id",
                                               "List-Help",
                                               "List-Unsubscribe",
                                               "List-Subscribe",
                                               "List-Post",
                                               "List-Owner",
                                               "List-Archive",
                                               "Message-ID",
                                               "MIME-Version",
                                               "Content-Type",
                                               "Content-Transfer-Encoding"};
const std::vector<std::string> DEFAULT_OVERSIGN{"From",       "To",           "Cc",
                                                "Reply-To",   "Subject",      "Date",
                                                "Message-ID", "MIME-Version", "Content-Type"};

struct TableFree {
    void operator()(conf_table *t) const { conf_free_r(t); }
};

std::vector<std::string> words(const std::string &text)
{
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

bool flag(const std::string &v, bool &out)
{
    for (const char *yes : {"yes", "true", "on", "1"})
        if (strcasecmp(v.c_str(), yes) == 0) return out = true;
    for (const char *no : {"no", "false", "off", "0"})
        if (strcasecmp(v.c_str(), no) == 0) return !(out = false);
    return false;
}

/* field_list - header field names: printable, no ':' */
std::vector<std::string> field_list(const std::vector<std::string> &names, const std::string &at)
{
    for (const auto &n : names)
        for (unsigned char c : n)
            if (c <= ' ' || c >= 0x7f || c == ':')
                throw ConfigError(at + "'" + n + "' is no header field name");
    return names;
}

/* network_list - the clients: ADDRESS/PREFIX, the prefix read as a prefix (0: every address
 * of the family), or an address alone, that one address.  The whitelist's notation reads
 * otherwise (its bare IPv6 word admits every IPv6 client, its IPv4 prefix 0 one address),
 * so the words are checked here, and a prefix that is no number is refused rather than
 * read as 0. */
std::vector<halyx::net::IPAnyNetwork> network_list(std::vector<std::string> &names,
                                                   const std::string &at)
{
    std::vector<halyx::net::IPAnyNetwork> out;
    for (auto &n : names) {
        size_t slash = n.find('/');
        std::string word = n, prefix = slash == std::string::npos ? "" : n.substr(slash + 1);
        bool v6 = n.find(':') != std::string::npos;
        if (slash == std::string::npos) word += v6 ? "/128" : "/32";
        halyx::net::IPAnyNetwork net(word);
        bool number = !prefix.empty() && prefix.size() <= 3 &&
                      prefix.find_first_not_of("0123456789") == std::string::npos;
        if (net.family() == AF_UNSPEC || (slash != std::string::npos && !number) ||
            (number && std::stoi(prefix) > (v6 ? 128 : 32)))
            throw ConfigError(at + "'" + n + "' is no network");
        /* such a peer is matched as the IPv4 address it carries */
        if (v6 && inSubnet(net.addr_string().c_str(), "::ffff:0.0.0.0", 96))
            throw ConfigError(at + "'" + n + "' is an IPv4 client: write its IPv4 address");
        out.push_back(net);
    }
    return out;
}

std::string joined(const std::vector<std::string> &v)
{
    std::string out;
    for (const auto &s : v)
        out += (out.empty() ? "" : " ") + s;
    return out;
}

} // namespace

Config::Config() : headers(DEFAULT_HEADERS), oversign(DEFAULT_OVERSIGN)
{
    std::vector<std::string> c = clients;
    client_networks = network_list(c, "");
}

const std::vector<std::string> &Config::selectors_for(const std::string &domain) const
{
    auto it = selectors.find(domain);
    return it != selectors.end() ? it->second : selector;
}

std::string Config::context(const std::string &domain) const
{
    return DK_CONTEXT_SELECTOR + selectors_for(domain).front();
}

std::string Config::socket_file() const
{
    for (const char *prefix : {"unix:", "local:"})
        if (socket.rfind(prefix, 0) == 0) return socket.substr(strlen(prefix));
    return "";
}

bool Config::client_allowed(const std::string &ip) const
{
    for (const auto &n : client_networks)
        if (n.contains_prefix(ip)) return true;
    return false;
}

std::string Config::settings() const
{
    std::ostringstream out;
    out << "socket " << socket << "\nclients " << joined(clients) << "\nselector "
        << joined(selector) << "\nstrict " << (strict ? "yes" : "no") << "\ntimeout " << timeout
        << "\nworkers " << workers << "\npid_file " << (pid_file.empty() ? "none" : pid_file)
        << "\nsigning_domain " << (signing_domain == SigningDomain::HEADER ? "header" : "envelope")
        << "\nheaders " << joined(headers) << "\noversign "
        << (oversign.empty() ? "none" : joined(oversign)) << "\nselector_map " << selector_map
        << "\nmetrics " << (metrics.empty() ? "none" : metrics) << "\nmetrics_per_domain "
        << (metrics_per_domain ? "yes" : "no") << "\nlong_lines "
        << (long_lines == LongLines::FOLD ? "fold" : "warn") << "\nline_length_limit "
        << line_length_limit << "\n";
    out << "# " << selectors.size() << " domains in the selector map\n";
    if (selectors.size() <= 20)
        for (const auto &[domain, sel] :
             std::map<std::string, std::vector<std::string>>(selectors.begin(), selectors.end()))
            out << "# " << domain << " signs with selector " << joined(sel) << "\n";
    return out.str();
}

Config load(const std::string &path)
{
    Config c;
    c.path = path;
    bool map_named = false;
    if (path == MILTER_CONF_PATH && access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        c.selectors = read_selector_map(c.selector_map, false);
        return c;
    }
    std::unique_ptr<conf_table, TableFree> t((conf_table *)calloc(1, sizeof(conf_table)));
    if (!t || conf_read_file_r(path.c_str(), t.get()) != 0)
        throw ConfigError(path + ": " + strerror(errno));
    if (t->invalid_line != 0)
        throw ConfigError(path + ":" + std::to_string(t->invalid_line) +
                          ": expected a name, blanks and a value");
    for (size_t i = 0; i < t->count; i++) {
        const conf_entry &e = t->entries[i];
        std::string name = e.name, value = e.value, at = path + ":" + std::to_string(e.line) + ": ";
        std::vector<std::string> list = words(value);
        char *end = nullptr;
        long number = strtol(value.c_str(), &end, 10);
        bool whole = !value.empty() && *end == '\0';
        if (name == "socket") {
            if (value.rfind("unix:", 0) != 0 && value.rfind("local:", 0) != 0 &&
                value.rfind("inet:", 0) != 0 && value.rfind("inet6:", 0) != 0)
                throw ConfigError(at + "socket takes unix:PATH or inet:PORT@HOST");
            /* a port alone would listen on every address: loopback is what was meant */
            if (value.find('@') == std::string::npos && value.rfind("inet:", 0) == 0)
                value += "@127.0.0.1";
            else if (value.find('@') == std::string::npos && value.rfind("inet6:", 0) == 0)
                value += "@::1";
            c.socket = value;
        } else if (name == "selector") {
            c.selector = selector_list(list, at);
        } else if (name == "strict") {
            if (!flag(value, c.strict)) throw ConfigError(at + "strict takes yes or no");
        } else if (name == "timeout") {
            if (!whole || number < 1 || number > 3600)
                throw ConfigError(at + "timeout takes seconds from 1 to 3600");
            c.timeout = (int)number;
        } else if (name == "workers") {
            if (!whole || number < 1 || number > 1000)
                throw ConfigError(at + "workers takes a number from 1 to 1000");
            c.workers = (int)number;
        } else if (name == "selector_map") {
            c.selector_map = value;
            map_named = true;
        } else if (name == "clients") {
            c.client_networks = network_list(list, at);
            c.clients = list;
        } else if (name == "pid_file") {
            c.pid_file = value == "none" ? "" : value;
        } else if (name == "headers") {
            c.headers = field_list(list, at);
            if (std::none_of(list.begin(), list.end(), [](const std::string &h) {
                    return strcasecmp(h.c_str(), "From") == 0;
                }))
                throw ConfigError(at + "headers must name From");
        } else if (name == "oversign") {
            c.oversign = value == "none" ? std::vector<std::string>{} : field_list(list, at);
        } else if (name == "signing_domain") {
            if (value != "envelope" && value != "header")
                throw ConfigError(at + "signing_domain takes envelope or header");
            c.signing_domain = value == "header" ? SigningDomain::HEADER : SigningDomain::ENVELOPE;
        } else if (name == "metrics") {
            sockaddr_storage addr;
            if (value != "none" && !metrics_address(value, addr))
                throw ConfigError(at + "metrics takes ADDRESS:PORT, [IPv6]:PORT, a port alone "
                                       "(loopback) or none");
            /* a port alone would be every address's: loopback is what was meant */
            c.metrics = value == "none"                        ? ""
                        : value.find(':') == std::string::npos ? "127.0.0.1:" + value
                                                               : value;
        } else if (name == "metrics_per_domain") {
            if (!flag(value, c.metrics_per_domain))
                throw ConfigError(at + "metrics_per_domain takes yes or no");
        } else if (name == "long_lines") {
            if (value != "fold" && value != "warn")
                throw ConfigError(at + "long_lines takes fold or warn");
            c.long_lines = value == "fold" ? LongLines::FOLD : LongLines::WARN;
        } else if (name == "line_length_limit") {
            /* a limit of 1 would leave a continuation line no room after its space */
            if (!whole || number < 0 || number == 1 || number > 1000000000)
                throw ConfigError(at + "line_length_limit takes 0 (no limit) or a number of "
                                       "characters from 2");
            c.line_length_limit = (int)number;
        } else {
            throw ConfigError(
                at + "unknown setting '" + name +
                "' (socket, clients, selector, strict, timeout, workers, "
                "selector_map, pid_file, headers, oversign, signing_domain, long_lines, "
                "line_length_limit, metrics, metrics_per_domain)");
        }
    }
    c.selectors = read_selector_map(c.selector_map, map_named);
    return c;
}

bool metrics_address(const std::string &text, sockaddr_storage &out)
{
    memset(&out, 0, sizeof(out));
    size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos)
        return false;
    unsigned long p = strtoul(port.c_str(), nullptr, 10);
    if (p < 1 || p > 65535) return false;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        auto &a = (sockaddr_in6 &)out;
        a.sin6_family = AF_INET6;
        a.sin6_port = htons((uint16_t)p);
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &a.sin6_addr) == 1;
    }
    auto &a = (sockaddr_in &)out;
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)p);
    return inet_pton(AF_INET, host.c_str(), &a.sin_addr) == 1;
}

} // namespace keyseal_milter
