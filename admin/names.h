/*
 * names - the names keys go by: a domain and a selector as the handler takes them (the
 * handler's own rules, dkim/dk_key.h), the key file they name, and every key under the
 * keys directory.
 *
 * canonical_domain and check_names throw Usage for a name the handler could not be given;
 * all_keys throws Problem when the keys directory cannot be listed.  Results are values.
 */
#ifndef KEYSEAL_ADMIN_NAMES_H
#define KEYSEAL_ADMIN_NAMES_H

#include "admin/admin.h"

#include <string>
#include <utility>
#include <vector>

namespace keyseal_admin
{

/* canonical_domain - a domain argument in the form keys are stored under (lower case, no
 * trailing dot); throws Usage for a name that is not a mail domain */
std::string canonical_domain(const std::string &domain);
/* check_names - domain made canonical; refuse a selector the handler could not be given */
void check_names(std::string &domain, const std::string &selector);
/* valid_name - a name check_names accepts: a key's domain or selector */
bool valid_name(const std::string &name);
/* key_path - the handler's key path for domain and selector */
std::string key_path(const std::string &domain, const std::string &selector);
/* all_keys - every DOMAIN/SELECTOR key under the keys directory, in name order */
std::vector<std::pair<std::string, std::string>> all_keys();

} // namespace keyseal_admin

#endif
