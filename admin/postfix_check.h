/*
 * postfix_check - `keyseal-admin postfix check`: every pitfall of the live Postfix
 * configuration for signing, each with its fix: the milter lists and the socket, the
 * default action, MIME conversion, content checks and line limits that change mail after it
 * was signed, second passes through a content filter, the local-submission mark, who may
 * choose a sender, and what keyseal-milter's user can do with the keys.
 *
 * Returns the exit status (1 when a finding is an error); findings go to standard output
 * through Findings.  Throws Problem when postconf fails or keyseal-milter's settings cannot
 * be read.
 */
#ifndef KEYSEAL_ADMIN_POSTFIX_CHECK_H
#define KEYSEAL_ADMIN_POSTFIX_CHECK_H

#include "admin/admin.h"

namespace keyseal_admin
{

/* cmd_postfix_check - every pitfall of the live Postfix configuration, with its fix */
int cmd_postfix_check();

} // namespace keyseal_admin

#endif
