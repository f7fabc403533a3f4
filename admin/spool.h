/*
 * spool - `keyseal-admin spool`: the handler's spool directory listed, and with clean its
 * leftovers older than a limit removed.
 *
 * Returns the exit status; throws Problem when the directory cannot be read.
 */
#ifndef KEYSEAL_ADMIN_SPOOL_H
#define KEYSEAL_ADMIN_SPOOL_H

#include "admin/admin.h"

namespace keyseal_admin
{

/* cmd_spool - the spool files; with clean, those older than older_than seconds removed */
int cmd_spool(bool clean, long older_than);

} // namespace keyseal_admin

#endif
