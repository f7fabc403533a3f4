/*
 * pool - keyseal-milter's helper: the one process that forks, feeds, times and reaps the
 * workers (milter/worker.h).  The milter starts it by spawning its own program
 * ("keyseal-milter --helper", the request socket on descriptor 3): a fresh single-threaded
 * process, where forking a worker is safe, which loads the libraries once (a signature
 * with a throwaway key) so that every worker starts warm, and then says Answer::READY on
 * the request socket.  It and its workers carry keyseal-milter's name (comm, as ps -C and
 * top show it) and say which they are in their command line: "--helper", "--worker".
 *
 * A request is one datagram (milter/records.h: Request, RequestFd): the Limits and the Job
 * inline, with the message and the write end of the job's done pipe (and the Job as a
 * file when it is large).  The helper passes the same datagram on to an idle worker, or to
 * a new one while there are fewer than Limits.workers, or else keeps the job waiting until
 * one is free.  The worker writes the framed Result to the done pipe itself and answers
 * Answer::DONE; the helper holds its own copy of the done pipe until the job is over, and
 * writes a failed Result of its own there when the worker died or ran past its time limit,
 * or no worker was free in time.  A worker past its time limit gets SIGTERM (it removes
 * its spool file) and SIGKILL KILL_GRACE seconds later.
 *
 * Ownership:
 *   process   descriptors                                  signals
 *   milter    listening socket, requests' other end,       SIGHUP reload, SIGTERM/SIGINT
 *             each job's message and done pipe reader       drain and stop (main thread);
 *             while it waits; the helper's pidfd            the helper by its pidfd
 *   helper    requests (fd 3), each worker's socket,        SIGCHLD by signalfd; SIGHUP,
 *             every job's done pipe writer until the job    SIGINT, SIGPIPE ignored;
 *             is over, waiting jobs' message (and job)      SIGTERM ends it
 *   worker    its socket; its job's message, done pipe     SIGTERM: time limit (the spool
 *             writer (and job file) while it serves it     file goes); parent-death signal
 *                                                          SIGTERM; SIGHUP, SIGINT ignored
 * The helper ends when the milter's end of the requests closes, after the jobs in hand.
 * pool_main() never returns.
 */
#ifndef KEYSEAL_MILTER_POOL_H
#define KEYSEAL_MILTER_POOL_H

#include "milter/records.h"

namespace keyseal_milter
{

#define POOL_REQUESTS_FD 3 /* where the helper finds its request socket */
#define POOL_ARGUMENT "--helper"
#define POOL_WORKER_ARGUMENT "--worker" /* as long as POOL_ARGUMENT: written over it */
#define POOL_KILL_GRACE KILL_GRACE

[[noreturn]] void pool_main(int requests);

} // namespace keyseal_milter

#endif
