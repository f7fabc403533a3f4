/*
 * postfix - `keyseal-admin postfix`: keyseal-milter put into Postfix's mail flow (setup),
 * taken out of it (remove), and the live configuration audited for every pitfall (check).
 *
 * Commands return the exit status; they throw Problem when postconf fails or a file cannot
 * be written.  Findings go to standard output through Findings.
 */
#ifndef KEYSEAL_ADMIN_POSTFIX_H
#define KEYSEAL_ADMIN_POSTFIX_H

#include "admin/admin.h"

namespace keyseal_admin
{

/* cmd_postfix_setup - the Postfix settings keyseal-milter needs, written with postconf after
 * keeping copies of main.cf and master.cf (the newest three pairs); prints what it changed
 * and records it, with what was there before */
int cmd_postfix_setup();
/* cmd_postfix_remove - keyseal-milter out of smtpd_milters and non_smtpd_milters, and every
 * other setting setup recorded back as it was, unless changed since */
int cmd_postfix_remove();
/* cmd_postfix_check - every pitfall of the live Postfix configuration, with its fix */
int cmd_postfix_check();

} // namespace keyseal_admin

#endif
