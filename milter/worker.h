/*
 * worker - the handler's service for one message at a time, in a worker process that
 * keyseal-milter's helper (milter/pool.h) forked.
 *
 * serve() takes the handler's start-up (mh_handler_prepare: syslog ident "keyseal", the
 * queue id as trace id) and runs the signing engine on the message, exactly as keyseal
 * would on its standard input, then says what came of it as a Result.  Every piece of
 * the handler's state is set afresh for each message (environment, log identity,
 * OpenSSL's error queue); the engine keeps nothing between calls.
 * worker_main() is a worker's life and never returns; the process ends with _exit.
 */
#ifndef KEYSEAL_MILTER_WORKER_H
#define KEYSEAL_MILTER_WORKER_H

#include "milter/pool.h"
#include "milter/records.h"

namespace keyseal_milter
{

/* serve - one message (read from message_fd's offset 0) through the engine */
Result serve(const Job &job, int message_fd);

/* worker_main - jobs taken from the request socket, one at a time, up to max_use of them:
 * each a Request with its descriptors (milter/records.h), whose framed Result goes to the
 * job's done pipe; what it serves and until when stands in its slot of the helper's
 * shared memory (milter/pool.h).  The requests' end, or the pool's wish, and it ends. */
[[noreturn]] void worker_main(int requests, PoolShared &shared, PoolSlot &slot, int poke,
                              int max_use);

} // namespace keyseal_milter

#endif
