/*
 * rotate - `keyseal-admin rotate`: a domain's key replaced without a gap in signing: a new
 * key under a new selector (start), keyseal-milter's selector map switched once every
 * authoritative nameserver serves the new record (switch), the old key put aside after the
 * grace period (retire), and where each domain stands (status).
 *
 * Commands return the exit status; they throw Problem when a step cannot be taken (its
 * message names what to do) and Usage for a bad name or a choice left open.
 */
#ifndef KEYSEAL_ADMIN_ROTATE_H
#define KEYSEAL_ADMIN_ROTATE_H

#include "admin/dns.h"

#include <string>

namespace keyseal_admin
{

/* cmd_rotate_start - a new key (type, or the replaced key's type) under a new selector (or
 * sYYYYMMDD), replacing the selector that signs now (of: the one of that key type when the
 * domain signs twice; replaces: named outright); the rotation's state recorded */
int cmd_rotate_start(std::string domain, const std::string &type, std::string selector,
                     const std::string &of, const std::string &replaces);
/* cmd_rotate_status - each domain in rotation (or the one given): its step and the next */
int cmd_rotate_status(const std::string &domain);
/* cmd_rotate_switch - the selector map switched and keyseal-milter reloaded once every
 * nameserver (the zone's authoritative ones, or those given) serves the new key */
int cmd_rotate_switch(std::string domain, const Nameservers &given, bool force);
/* cmd_rotate_retire - the old key moved aside once the grace period is over */
int cmd_rotate_retire(std::string domain, bool force);

} // namespace keyseal_admin

#endif
