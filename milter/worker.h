/*
 * worker - the handler's service for one message at a time, in a worker process that
 * keyseal-milter's helper (milter/pool.h) forked.
 *
 * serve() runs the signing engine on the message as keyseal would on its standard input,
 * with the job's policy inputs in place of the chain's environment, and says what came of
 * it as a Result.  The message file is signed where it stands: no spool file is made.
 * The handler's log identity (syslog ident "keyseal", level informational) is taken on the
 * first call of a process; each message logs under its queue id as trace id, with
 * OpenSSL's error queue cleared.  Between calls the engine keeps only what no change of a
 * file can leave stale: its library instance with the header lists last set, the
 * whitelist's networks until the file changes, and each key text's algorithm; a key or
 * whitelist file changed counts from the next message on.  The process's environment is
 * neither read nor changed for a message.
 * worker_main() is a worker's life and never returns; the process ends with _exit.
 */
#ifndef KEYSEAL_MILTER_WORKER_H
#define KEYSEAL_MILTER_WORKER_H

#include "milter/pool.h"
#include "milter/records.h"

namespace keyseal_milter
{

/* serve - one message (read from message_fd's offset 0, which serve closes) through the
 * engine; own_log false leaves the process's logging as it is (keyseal-admin test, whose
 * lines go to its standard error) */
Result serve(const Job &job, int message_fd, bool own_log = true);

/* worker_main - jobs taken from the request socket, one at a time, up to max_use of them:
 * each a Request with its descriptors (milter/records.h), whose framed Result goes to the
 * job's done pipe; what it serves and until when stands in its slot of the helper's
 * shared memory (milter/pool.h).  The requests' end, or the pool's wish, and it ends. */
[[noreturn]] void worker_main(int requests, PoolShared &shared, PoolSlot &slot, int poke,
                              int max_use);

} // namespace keyseal_milter

#endif
