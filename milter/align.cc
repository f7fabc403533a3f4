#include "milter/align.h"

#include "dkim/dk_key.h"

#include <cstdlib>
#include <libpsl.h>

namespace keyseal_milter
{

namespace
{

/* bare - the value without comments and quoted strings (each kept as a blank), so that
 * only the addresses' own '@', ',' and angle brackets are left */
std::string bare(const std::string &value)
{
    std::string out;
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < value.size(); i++) {
        char c = value[i];
        if (c == '\\' && (quoted || depth > 0)) {
            i++;
            continue;
        }
        if (quoted) {
            quoted = c != '"';
            if (!quoted) out += ' ';
        } else if (c == '(') {
            depth++;
        } else if (c == ')' && depth > 0) {
            if (--depth == 0) out += ' ';
        } else if (depth == 0) {
            if (c == '"')
                quoted = true;
            else
                out += c;
        }
    }
    return out;
}

std::string domain_of(const std::string &address)
{
    size_t at = address.rfind('@');
    if (at == std::string::npos) return "";
    std::string d = address.substr(at + 1);
    d.erase(d.find_last_not_of(" \t\r\n") + 1);
    d.erase(0, d.find_first_not_of(" \t\r\n"));
    char *canonical = dk_domain_canonical(d.c_str());
    std::string out = canonical != nullptr ? canonical : "";
    free(canonical);
    return out;
}

const psl_ctx_t *suffixes()
{
    /* the installed list when there is one (kept current by its package), else the one
     * built into the library */
    static const psl_ctx_t *ctx = [] {
        psl_ctx_t *latest = psl_latest(nullptr);
        return latest != nullptr ? (const psl_ctx_t *)latest : psl_builtin();
    }();
    return ctx;
}

} // namespace

std::vector<std::string> from_domains(const std::string &value)
{
    std::vector<std::string> out;
    std::string text = bare(value), word;
    bool angle = false;
    std::string inside;
    for (char c : text + ",") {
        if (c == '<') {
            angle = true, inside.clear();
        } else if (c == '>' && angle) {
            angle = false, word = "<" + inside + ">";
        } else if (angle) {
            inside += c;
        } else if (c == ',' || c == ';') {
            /* a group's name ends in ':', an address is what follows it */
            size_t colon = word.find(':');
            if (colon != std::string::npos && word[0] != '<') word = word.substr(colon + 1);
            size_t open = word.find('<');
            std::string address =
                open != std::string::npos ? word.substr(open + 1, word.find('>') - open - 1) : word;
            if (address.find_first_not_of(" \t\r\n") != std::string::npos)
                out.push_back(domain_of(address));
            word.clear();
        } else if (word.empty() || word[0] != '<') {
            word += c;
        }
    }
    return out;
}

std::string organizational_domain(const std::string &domain)
{
    const char *org = psl_registrable_domain(suffixes(), domain.c_str());
    return org != nullptr ? org : domain;
}

bool aligned(const std::string &d, const std::string &from)
{
    return !d.empty() && !from.empty() && organizational_domain(d) == organizational_domain(from);
}

} // namespace keyseal_milter
