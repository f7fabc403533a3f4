/*
 * pool - keyseal-milter's helper: the one process that forks, feeds, times and reaps the
 * workers (milter/worker.h).  The milter starts it by fork and exec of its own program
 * ("keyseal-milter --helper", the request socket on descriptor 3): a fresh
 * single-threaded process, where forking a worker is safe, which loads the libraries
 * once (a signature with a throwaway key) so that every worker starts warm.
 *
 * A request is one datagram: the Limits record, with four descriptors: the encoded Job,
 * the message, the file for the Result, and the write end of the job's done pipe.  The
 * helper gives the first three to an idle worker, or to a new one while there are fewer
 * than Limits.workers, or else keeps the job waiting until one is free.  It holds the
 * done pipe alone and closes it when the job is over: empty when the worker wrote its
 * Result, or holding a failed Result of its own (the worker died or ran past its time
 * limit, no worker was free in time).  A worker past its time limit gets SIGTERM (it
 * removes its spool file) and SIGKILL KILL_GRACE seconds later.
 *
 * Ownership:
 *   process   descriptors                                  signals
 *   milter    listening socket, requests' other end,       SIGHUP reload, SIGTERM/SIGINT
 *             each job's memory files and done pipe reader  drain and stop (main thread)
 *   helper    requests (fd 3), each worker's socket,        SIGCHLD by signalfd; SIGHUP,
 *             busy jobs' done pipe writers, waiting jobs'   SIGINT, SIGPIPE ignored;
 *             files                                         SIGTERM ends it
 *   worker    its socket, its job's three files            SIGTERM: time limit (the spool
 *                                                          file goes); parent-death signal
 *                                                          SIGTERM; SIGHUP, SIGINT ignored
 * The helper ends when the milter's end of the requests closes, after the jobs in hand.
 * pool_main() never returns.
 */
#ifndef KEYSEAL_MILTER_POOL_H
#define KEYSEAL_MILTER_POOL_H

namespace keyseal_milter
{

#define POOL_REQUESTS_FD 3 /* where the helper finds its request socket */
#define POOL_ARGUMENT "--helper"
#define POOL_KILL_GRACE 5 /* seconds between SIGTERM and SIGKILL */

[[noreturn]] void pool_main(int requests);

} // namespace keyseal_milter

#endif
