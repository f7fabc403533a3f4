/*
 * rotate_auto - key rotation with no person in the loop, where keyseal can update the DNS:
 * delegated domains (two fixed selectors whose TXT records live in the hoster's
 * delegation_zone, reached through CNAMEs the domain's owner publishes once), and rotate auto,
 * which takes every domain one step further when its time has come (start, switch, retire),
 * publishing and withdrawing the records itself through dns_update.
 *
 * Return convention: commands return the exit status (0 every domain where it should be, 1
 * one needs a person, as the lines printed say); a lock held by another run, settings or a
 * state file that cannot be read throw Problem (one line).  A domain's own trouble never ends
 * the run: it is that domain's line, and the others go on.
 * Diagnostics: one line per domain that moved or waits on standard output; nothing ends the
 * process.
 */
#ifndef KEYSEAL_ROTATE_AUTO_H
#define KEYSEAL_ROTATE_AUTO_H

#include "admin/dns.h"

#include <string>

namespace keyseal_admin
{

/* DELEGATED_SELECTORS - the two fixed selectors of a delegated domain: the owner's CNAMEs
 * name them once, and rotations alternate between them */
extern const char *const DELEGATED_SELECTORS[2];

/* delegated_target - where SELECTOR's record of a delegated DOMAIN lives in the hoster's zone:
 * SELECTOR.DOMAIN.ZONE, a name no other domain's can be */
std::string delegated_target(const std::string &domain, const std::string &selector,
                             const std::string &zone);

/* cmd_delegate - DOMAIN put on the fixed selectors: the first key made and published in the
 * delegation_zone, the owner's two CNAME records printed; with wait_seconds, waited for until
 * the CNAME leads to the key, then switched to (else rotate auto or check switches it) */
int cmd_delegate(std::string domain, int wait_seconds);

/* cmd_rotate_auto - one run over every domain of keyseal-milter's selector map and every
 * rotation; refuses (Problem) while another run holds the lock */
int cmd_rotate_auto();

/* check_delegation - for a delegated domain: per fixed selector, whether the owner's CNAME is
 * missing, points elsewhere, or is in place with or without the key behind it; a delegation
 * still waiting for its gate is switched when it passes.  false: the domain is not delegated
 * (nothing reported) */
bool check_delegation(const std::string &domain, const Nameservers &ns, Findings &report);

} // namespace keyseal_admin

#endif
