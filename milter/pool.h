/*
 * pool - keyseal-milter's helper: the one process that forks, times and reaps the workers
 * (milter/worker.h), and answers for a worker that dies.  The milter starts it by spawning
 * its own program ("keyseal-milter --helper", the request socket on descriptor 3): a fresh
 * single-threaded process, where forking a worker is safe, which loads the libraries once
 * (a signature with a throwaway key) so that every worker starts warm, then says
 * Answer::READY on the request socket.  It and its workers carry keyseal-milter's name
 * (comm, as ps -C and top show it) and say which they are in their command line:
 * "--helper", "--worker".
 *
 * The helper is not in a message's way.  A request is one datagram (milter/records.h:
 * Request, RequestFd) on the request socket, whose receiving end the helper's workers
 * share: an idle worker takes it straight from the socket (the kernel gives each datagram
 * to one reader), writes the framed Result to the job's done pipe, and takes the next.  A
 * job that waited in the socket past its time limit is answered at once ("no worker was
 * free").  In the memory it shares with the helper (PoolShared) a worker says which job it
 * serves until when; it arms its own timer for SIGTERM at that deadline, and the helper sends
 * SIGKILL KILL_GRACE seconds later should it live on. The helper reaps a worker that ends in a job
 * and tells the milter why (Answer::FAILED, by the job's number); it forks workers up to the latest
 * Limits.workers, keeping SPARES idle ones (a worker that takes the last spares wakes it through
 * the poke eventfd); an idle worker leaves when there are more than the cap or IDLE_MAX idle ones.
 *
 * Ownership:
 *   process   descriptors                                  signals
 *   milter    listening socket, each connection (its       SIGHUP, SIGTERM, SIGINT blocked in
 *             read-ahead), requests' milter end, each      every thread from the start, read
 *             job's message and done pipe reader while     by the main thread's signalfd
 *             it waits; the helper's pidfd, the signal-    (supervisor.h); libmilter's signal
 *             fd, libmilter's end eventfd (main thread)     thread takes none; SIGPIPE ignored
 *   milter's  the metrics listener and its scrapers'        the same mask, inherited from the
 *   metrics   connections (at most CONNECTIONS), owned     main thread that starts it: takes
 *   thread    by libmicrohttpd's thread (metrics.h); it    none; reads the counters only,
 *             reads the counters, never a job's            never waits on a session
 *             descriptor
 *   helper    requests' helper end (fd 3), the poke         SIGCHLD by signalfd; SIGHUP,
 *             eventfd, SIGCHLD's signalfd; no job's         SIGINT, SIGPIPE ignored;
 *             descriptor ever                               SIGTERM ends it
 *   worker    requests' helper end (it reads jobs there),   SIGTERM: its time limit, by its
 *             the poke eventfd; its job's message, done    own timer, and the parent-death
 *             pipe writer (and job file) while it serves   signal (no spool file to remove:
 *             it                                           it signs in place); SIGHUP, SIGINT
 *                                                          ignored
 * The helper ends when the milter's end of the requests is shut, after its workers took
 * the jobs still queued and finished them.  pool_main() never returns.
 */
#ifndef KEYSEAL_MILTER_POOL_H
#define KEYSEAL_MILTER_POOL_H

#include "milter/records.h"

#include <atomic>
#include <cstdint>

namespace keyseal_milter
{

#define POOL_REQUESTS_FD 3 /* where the helper finds its request socket */
#define POOL_ARGUMENT "--helper"
#define POOL_WORKER_ARGUMENT "--worker" /* as long as POOL_ARGUMENT: written over it */
#define POOL_KILL_GRACE KILL_GRACE

enum { POOL_SLOTS = 1000 /* the most workers: the workers setting's bound */ };

enum PoolSlotState : uint32_t { SLOT_FREE, SLOT_IDLE, SLOT_BUSY, SLOT_LEAVING };

/* PoolSlot - one worker's place in the memory it shares with the helper */
struct PoolSlot {
    std::atomic<uint32_t> state;
    std::atomic<uint32_t> timeout;    /* BUSY: the job's time limit, in seconds */
    std::atomic<uint64_t> seq;        /* BUSY: the job's number */
    std::atomic<int64_t> deadline_ns; /* BUSY: CLOCK_MONOTONIC */
};

struct PoolShared {
    std::atomic<uint32_t> cap;     /* Limits.workers of the latest request */
    std::atomic<uint32_t> live;    /* workers that have not chosen to leave */
    std::atomic<uint32_t> used;    /* slots at or past this one were never used */
    std::atomic<uint32_t> drained; /* a worker met the end of the requests */
    PoolSlot slots[POOL_SLOTS];
};

/* pool_short - a worker just took the last spares, and there may be more workers */
bool pool_short(const PoolShared &shared);
/* pool_leave - a worker that is idle (slot) chooses to leave: must (its last job), or the
 * pool is over its cap or has too many idle; true when it leaves, counted off */
bool pool_leave(PoolShared &shared, PoolSlot &slot, bool must);

/* pool_main - the helper's life; each worker calls worker_start first, if given (the
 * program's parsed-key cache: milter/key_cache.h) */
[[noreturn]] void pool_main(int requests, void (*worker_start)());

} // namespace keyseal_milter

#endif
