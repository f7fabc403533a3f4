/*
 * worker - runs the handler's own code for one message at a time in a worker process,
 * for keyseal-milter's threads.
 *
 * Worker::start() forks the helper before libmilter starts any thread: a
 * single-threaded process that owns every worker.  Worker::run() (any thread) hands it
 * the message file and the handler's arguments and environment; the helper passes them
 * to an idle worker, which takes the handler's start-up (mh_handler_prepare, syslog ident
 * "keyseal", the queue id as trace id) and runs the signing engine on the file, exactly
 * as keyseal would on its standard input.  No state survives a message: the environment,
 * the log identity and OpenSSL's error queue are set afresh for each, and the engine keeps
 * nothing between calls; a worker ends after 100 messages, and one that crashes or
 * runs past its time limit is discarded.  The helper loads the libraries once (a signature
 * with a throwaway key), so that a worker starts where a warm process stands.  A worker
 * past its time limit gets SIGTERM (it removes its spool file), and SIGKILL 5 s later.
 * run() returns what the worker did; it throws WorkerGone when the helper is not there.
 * Nothing here ends the process, save the helper and its workers, which _exit.
 */
#ifndef KEYSEAL_MILTER_WORKER_H
#define KEYSEAL_MILTER_WORKER_H

#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace keyseal_milter
{

struct Job {
    std::string queue_id; /* the trace id of the handler's log lines */
    std::string context, from;
    std::vector<std::string> to;
    std::vector<std::string> env; /* NAME=VALUE: the policy variables */
    int message_fd;               /* the whole message, read from offset 0 */
};

struct Outcome {
    int wait_status = -1;     /* the engine's status as waitpid() gives an exit, or the
                               * worker's wait status when it died first; -1: none */
    bool timed_out = false;   /* killed for its time limit */
    std::string signature;    /* the new header on PASS: "DKIM-Signature: ...\n..." */
    std::vector<int> removed; /* DKIM-Signature headers cut, by place (1 first, any case) */
};

struct WorkerGone : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Worker
{
  public:
    /* start - fork the helper; timeout is one message's time limit in seconds */
    static void start(int timeout);
    static Outcome run(const Job &job);
    static pid_t helper_pid();
};

} // namespace keyseal_milter

#endif
