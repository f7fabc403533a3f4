/*
 * selftest - `keyseal-admin test`: a sample message signed by the installed handler (as a
 * user, when given) and its signature verified against the published record.
 *
 * Returns the exit status; findings go to standard output through Findings.  Throws Usage
 * for a bad name and Problem when the handler cannot be run.
 */
#ifndef KEYSEAL_ADMIN_SELFTEST_H
#define KEYSEAL_ADMIN_SELFTEST_H

#include "admin/access.h"
#include "admin/dns.h"

#include <string>

namespace keyseal_admin
{

/* cmd_test - keyseal (the handler's path) signs a sample for domain and selector; the
 * signature is verified through ns */
int cmd_test(std::string domain, const std::string &selector, const Nameservers &ns,
             const std::string &keyseal, const Access *user);

} // namespace keyseal_admin

#endif
