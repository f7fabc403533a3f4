/*
 * helper - keyseal-milter's hold on its helper process (milter/pool.h): starting it,
 * handing it one message's job from any libmilter thread, and replacing it when it dies.
 *
 * start() forks and execs the helper from the calling thread, which must live as long
 * as the process (the main thread); a second call replaces the helper's channel, and jobs
 * already handed over end as the old helper's done pipes close.  run() never throws and
 * never blocks past the job's time limit (plus the kill grace and a little): it returns
 * the worker's Result, or a failed one saying why (helper gone, no answer in time), with
 * retry set where a later try may succeed.  Thread-safe except start(), which only the
 * main thread calls.  Nothing here ends the process.
 */
#ifndef KEYSEAL_MILTER_HELPER_H
#define KEYSEAL_MILTER_HELPER_H

#include "milter/records.h"

#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>

namespace keyseal_milter
{

class Helper
{
  public:
    /* start - the first helper: 0, or -1 with errno */
    int start();
    /* pidfd - polls readable once the running helper has ended; -1 while none runs */
    int pidfd() const { return pidfd_; }
    /* ended - pidfd() polled readable: the helper reaped, its end logged; the milliseconds
     * to wait before restart() */
    int ended();
    /* restart - a new helper after ended(): as start() */
    int restart();
    unsigned restarts() const { return restarts_; }
    Result run(const Job &job, int message_fd, const Limits &limits);

  private:
    pid_t spawn(int &pidfd);
    pid_t pid_ = -1;
    int pidfd_ = -1;
    unsigned restarts_ = 0;
    struct Channel; /* one helper's request socket, shared by the jobs that use it */
    std::shared_ptr<Channel> channel() const;
    mutable std::mutex mutex_;
    std::shared_ptr<Channel> channel_;
};

} // namespace keyseal_milter

#endif
