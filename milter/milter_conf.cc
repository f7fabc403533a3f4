#include "milter/milter_conf.h"

#include "conf/hlx_conf.h"
#include "dkim/dk_key.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <strings.h>

namespace keyseal_milter
{

namespace
{

struct TableFree {
    void operator()(conf_table *t) const { conf_free_r(t); }
};

/* a selector the handler can turn into a key path of one component */
bool plain_name(const std::string &s)
{
    if (s.empty() || s[0] == '.' || s.find('/') != std::string::npos) return false;
    for (unsigned char c : s)
        if (c <= ' ' || c == 0x7f || c == ',') return false;
    return true;
}

bool flag(const std::string &v, bool &out)
{
    for (const char *yes : {"yes", "true", "on", "1"})
        if (strcasecmp(v.c_str(), yes) == 0) return out = true;
    for (const char *no : {"no", "false", "off", "0"})
        if (strcasecmp(v.c_str(), no) == 0) return !(out = false);
    return false;
}

void read_map(Config &c)
{
    std::ifstream in(c.selector_map);
    if (!in) throw ConfigError(c.selector_map + ": " + strerror(errno));
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string domain, selector, extra;
        if (!(words >> domain)) continue;
        if (!(words >> selector) || (words >> extra) || !plain_name(selector))
            throw ConfigError(c.selector_map + ":" + std::to_string(n) +
                              ": expected DOMAIN SELECTOR");
        c.selectors[domain] = selector;
    }
}

} // namespace

std::string Config::context(const std::string &domain) const
{
    auto it = selectors.find(domain);
    return DK_CONTEXT_SELECTOR + (it != selectors.end() ? it->second : selector);
}

std::string Config::settings() const
{
    std::ostringstream out;
    out << "socket " << socket << "\nselector " << selector << "\nstrict "
        << (strict ? "yes" : "no") << "\ntimeout " << timeout << "\n";
    if (!selector_map.empty()) out << "selector_map " << selector_map << "\n";
    for (const auto &[domain, sel] : selectors)
        out << "# " << domain << " signs with selector " << sel << "\n";
    return out.str();
}

Config load(const std::string &path)
{
    Config c;
    c.path = path;
    std::unique_ptr<conf_table, TableFree> t((conf_table *)calloc(1, sizeof(conf_table)));
    if (!t || conf_read_file_r(path.c_str(), t.get()) != 0)
        throw ConfigError(path + ": " + strerror(errno));
    if (t->invalid_line != 0)
        throw ConfigError(path + ":" + std::to_string(t->invalid_line) +
                          ": expected a name, blanks and a value");
    for (size_t i = 0; i < t->count; i++) {
        const conf_entry &e = t->entries[i];
        std::string name = e.name, value = e.value, at = path + ":" + std::to_string(e.line) + ": ";
        char *end = nullptr;
        if (name == "socket") {
            if (value.rfind("unix:", 0) != 0 && value.rfind("local:", 0) != 0 &&
                value.rfind("inet:", 0) != 0 && value.rfind("inet6:", 0) != 0)
                throw ConfigError(at + "socket takes unix:PATH or inet:PORT@HOST");
            c.socket = value;
        } else if (name == "selector") {
            if (!plain_name(value)) throw ConfigError(at + "selector '" + value + "' is no name");
            c.selector = value;
        } else if (name == "strict") {
            if (!flag(value, c.strict)) throw ConfigError(at + "strict takes yes or no");
        } else if (name == "timeout") {
            long v = strtol(value.c_str(), &end, 10);
            if (*end != '\0' || v < 1 || v > 3600)
                throw ConfigError(at + "timeout takes seconds from 1 to 3600");
            c.timeout = (int)v;
        } else if (name == "selector_map") {
            c.selector_map = value;
        } else {
            throw ConfigError(at + "unknown setting '" + name +
                              "' (socket, selector, strict, timeout, selector_map)");
        }
    }
    if (!c.selector_map.empty()) read_map(c);
    return c;
}

} // namespace keyseal_milter
