/*
 * whitelist - `keyseal-admin whitelist`: the handler's signing whitelist listed with what
 * each word really admits, linted, edited (add, remove: the file rewritten safely) and asked
 * about one client, all through the handler's own whitelist reader.
 *
 * Commands return the exit status; they throw Usage for a word that is no network and
 * Problem when the file cannot be read or written.  Results are values.
 */
#ifndef KEYSEAL_ADMIN_WHITELIST_H
#define KEYSEAL_ADMIN_WHITELIST_H

#include "admin/admin.h"

#include <string>

namespace keyseal_admin
{

int cmd_whitelist_list();
int cmd_whitelist_lint();
int cmd_whitelist_add(const std::string &network);
int cmd_whitelist_remove(const std::string &network);
int cmd_whitelist_check(const std::string &ip);
/* whitelist_entry - the word that admits ip, with its line, or "" */
std::string whitelist_entry(const std::string &ip);

} // namespace keyseal_admin

#endif
