/*
 * check - `keyseal-admin check`: the keys as receivers will see them.  For each key, the
 * file as the handler reads it, its published TXT record (at the nameservers given, or the
 * system's) and whether the two match; with a user, what that user can do with the
 * handler's files.
 *
 * Returns the exit status (1 when a finding is an error); findings go to standard output
 * through Findings.  Throws Usage for a bad name and Problem when there are no keys.
 */
#ifndef KEYSEAL_ADMIN_CHECK_H
#define KEYSEAL_ADMIN_CHECK_H

#include "admin/access.h"
#include "admin/dns.h"

#include <string>

namespace keyseal_admin
{

/* cmd_check - one key (domain and selector) or, with all, every DOMAIN/SELECTOR key under
 * the keys directory; with a user, also what that user can do with the handler's files */
int cmd_check(std::string domain, const std::string &selector, const Nameservers &ns,
              const Access *user, bool all);

} // namespace keyseal_admin

#endif
