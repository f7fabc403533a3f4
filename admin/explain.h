/*
 * explain - `keyseal-admin explain`: the handler's own flow replayed on a message, each
 * decision shown as it is taken; nothing is written out and the spool file is removed.
 *
 * Returns the exit status; throws Usage for a bad argument and Problem when the message
 * cannot be read.
 */
#ifndef KEYSEAL_ADMIN_EXPLAIN_H
#define KEYSEAL_ADMIN_EXPLAIN_H

#include "admin/admin.h"

#include <string>
#include <vector>

namespace keyseal_admin
{

/* cmd_explain - the handler's flow on a message (a sample when message is "") with the
 * sender, CONTEXT and environment given */
int cmd_explain(const std::string &from, const std::string &context,
                const std::vector<std::string> &env, const std::string &message);

} // namespace keyseal_admin

#endif
