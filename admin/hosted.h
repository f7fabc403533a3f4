/*
 * hosted - the mail domains this server hosts, as Postfix's domain lists name them
 * (virtual_mailbox_domains, virtual_alias_domains, relay_domains, and mydestination but for
 * the host's own names), and `keyseal-admin keygen --missing`: a key for each hosted domain,
 * or each domain of a FILE, that has none yet.
 *
 * A list's items are names, files of names, or lookup tables: the tables Postfix can list
 * (postmap -s: hash, btree, lmdb, cdb, dbm, sdbm) and texthash: and inline: are read; any
 * other table (a database, a server, a pattern) is named as not listable, never guessed at.
 * hosted_domains throws Problem when postconf fails; cmd_keygen_missing returns the exit
 * status (1 when a key could not be made) and throws Usage for a FILE line that is no domain
 * (nothing made then).  Results are values.
 */
#ifndef KEYSEAL_ADMIN_HOSTED_H
#define KEYSEAL_ADMIN_HOSTED_H

#include "admin/admin.h"

#include <map>
#include <string>
#include <vector>

namespace keyseal_admin
{

struct Hosted {
    std::map<std::string, std::string> domains; /* canonical domain -> the setting naming it */
    std::vector<std::string> unlisted;          /* "SETTING: ITEM cannot be listed (why)" */
};
/* postfix_configured - postconf answers: Postfix is installed and has its main.cf */
bool postfix_configured();
/* hosted_domains - every domain Postfix's domain lists name */
Hosted hosted_domains();
/* cmd_keygen_missing - a key (type, bits; under selector, or the one keyseal-milter would
 * sign the domain with when selector is "") for each domain of file (one a line, '#'
 * comments), or of Postfix's lists when file is "", that has no key under the keys
 * directory; each record published where keyseal-admin can update the zone, else printed */
int cmd_keygen_missing(const std::string &file, const std::string &selector,
                       const std::string &type, int bits, const std::string &group);

} // namespace keyseal_admin

#endif
