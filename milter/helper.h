/*
 * helper - keyseal-milter's hold on its helper process (milter/pool.h), from its start to
 * its reaping: starting it, handing it one message's job from any libmilter thread, and
 * replacing it when it dies.
 *
 * start(), ended(), restart() and stop() belong to one thread, the one that watches
 * pidfd() (the main thread); run() may be called from any thread at any time, before,
 * during and after those.  run() never throws and never blocks past answer_wait_ms(): it
 * hands the job to a worker through the helper's request socket and returns the worker's
 * Result, or a failed one saying why (the worker's end as the helper tells it, the helper
 * gone, no answer in time), with retry set where a later try may succeed.  A job that comes
 * while a helper is being replaced waits for the next one, within its time limit, rather
 * than going out unsigned; after stop() none waits.  A helper that dies is
 * replaced every time; only one that dies young (within YOUNG_MS of its start) is replaced after a
 * back-off, doubling from BACKOFF_MIN_MS up to BACKOFF_MAX_MS while helpers keep dying
 * young.  Lines logged: the helper's end and each restart (milter/milter_log.h).  Nothing
 * here ends the process.
 */
#ifndef KEYSEAL_MILTER_HELPER_H
#define KEYSEAL_MILTER_HELPER_H

#include "milter/records.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sys/types.h>

namespace keyseal_milter
{

class Helper
{
  public:
    enum { YOUNG_MS = 1000, BACKOFF_MIN_MS = 100, BACKOFF_MAX_MS = 3200, READY_MS = 10000 };

    Helper() = default;
    Helper(const Helper &) = delete;
    Helper &operator=(const Helper &) = delete;

    /* start - the first helper, ready to take jobs (it said so over its request socket
     * after its warm-up): 0, or -1 with errno when it cannot be spawned (the exec's errno:
     * EACCES, ENOENT ...), ends before it is ready (ECONNRESET) or says nothing within
     * READY_MS (ETIMEDOUT); then it is killed and reaped */
    int start();
    /* pidfd - polls readable once the running helper has ended; -1 while none runs */
    int pidfd() const { return pidfd_; }
    /* ended - pidfd() polled readable: the helper is reaped, its end logged with its cause
     * and counted; the milliseconds to wait before restart(): 0, or the back-off when it
     * died young.  The jobs in its hands end as failed, with retry. */
    int ended();
    /* restart - a new helper after ended(): as start(), and the restart is logged */
    int restart();
    unsigned restarts() const { return restarts_; }
    /* stop - the request channel closed: the helper finishes the jobs in hand and ends;
     * waited for (within the longest answer_wait_ms() of the jobs run) and reaped */
    void stop();
    Result run(const Job &job, int message_fd, const Limits &limits);

  private:
    struct Channel; /* one helper's request socket, shared by the jobs that use it */
    /* channel - the running helper's (not dead's), waiting up to wait for one while there is
     * none; NULL when none came, or after stop() */
    std::shared_ptr<Channel> channel(std::chrono::milliseconds wait,
                                     const std::shared_ptr<Channel> &dead) const;
    int spawn();
    std::atomic<uint64_t> jobs_{0}; /* the last job's number */

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_; /* a channel came, or stop() */
    std::shared_ptr<Channel> channel_;
    bool stopped_ = false;
    pid_t pid_ = -1;
    int pidfd_ = -1;
    std::chrono::steady_clock::time_point started_;
    unsigned restarts_ = 0;
    int backoff_ms_ = 0; /* the last back-off; 0 after a helper that lived */
    std::atomic<int> longest_wait_ms_{0};
};

} // namespace keyseal_milter

#endif
