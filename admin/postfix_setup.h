/*
 * postfix_setup - `keyseal-admin postfix setup` and `postfix remove`: keyseal-milter put into
 * Postfix's mail flow with postconf, after copies of main.cf and master.cf are kept, and taken
 * out again.  Setup records each setting it changed with what was there before (the undo
 * record, keyseal-setup in Postfix's configuration directory); remove puts back only what
 * still has setup's value.  Postfix is reloaded when it runs.
 *
 * Commands print what they changed on standard output and return the exit status; they
 * throw Problem when postconf fails or a copy or the record cannot be written (nothing is
 * changed when the copies cannot be made).
 */
#ifndef KEYSEAL_ADMIN_POSTFIX_SETUP_H
#define KEYSEAL_ADMIN_POSTFIX_SETUP_H

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

} // namespace keyseal_admin

#endif
