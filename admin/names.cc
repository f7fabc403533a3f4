/*
 * names - the names keys go by: a domain and a selector as the handler takes them, and the
 * key files under the keys directory.
 */
#include "admin/names.h"

#include "admin/files.h"

#include "dkim/dk_key.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace keyseal_admin
{

bool valid_name(const std::string &name)
{
    /* a key's directory and file are each one path component a CONTEXT can name */
    return dk_selector_problem(name.c_str()) == nullptr;
}

std::string canonical_domain(const std::string &domain)
{
    char *c = dk_domain_canonical(domain.c_str());
    if (c == nullptr)
        throw Usage("invalid domain '" + domain +
                    "': not a host name (letters, digits, hyphens and dots) or an address "
                    "literal such as [192.0.2.1]");
    std::string out = c;
    free(c);
    return out;
}

void check_names(std::string &domain, const std::string &selector)
{
    domain = canonical_domain(domain);
    if (const char *why = dk_selector_problem(selector.c_str()))
        throw Usage("invalid selector '" + selector + "': " + why);
}

std::string key_path(const std::string &domain, const std::string &selector)
{
    char *p = dk_key_path(domain.c_str(), selector.c_str());
    std::string path = p;
    free(p);
    return path;
}

/* all_keys - only names the handler could be given: the whitelist, kept replaced keys and
 * dot files are not keys */
std::vector<std::pair<std::string, std::string>> all_keys()
{
    std::vector<std::pair<std::string, std::string>> out;
    std::error_code ec;
    for (const auto &d : std::filesystem::directory_iterator(DK_KEYS_DIR, ec)) {
        if (!d.is_directory() || !valid_name(d.path().filename())) continue;
        for (const auto &k : std::filesystem::directory_iterator(d.path(), ec))
            if (!k.is_directory() && valid_name(k.path().filename()))
                out.emplace_back(d.path().filename(), k.path().filename());
    }
    if (ec) throw Problem("cannot list the keys in " + errno_text(DK_KEYS_DIR));
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace keyseal_admin
