/*
 * supervisor - keyseal-milter's main process around libmilter: the settings in force and
 * their reload, the signals, the signing helper's life, the drain and stop, the pid file.
 *
 * Signals have one owner, the main thread.  signals_block() is the program's first act:
 * SIGHUP, SIGTERM and SIGINT are blocked in every thread from then on (threads inherit the
 * mask), so that a signal waits, pending, until supervise() reads it from a signalfd;
 * two that arrive together, or one during a reload, are read in turn.  libmilter's own
 * signal thread waits for them with sigwait(), which keyseal-milter defines for it so
 * that it never returns (milter/main.cc): the library takes no signal at all.
 *
 *   signal          effect
 *   SIGHUP          reload milter.conf and the selector map; a mistake keeps the running
 *                   settings (logged with FILE:LINE)
 *   SIGTERM SIGINT  stop: no new connection, the messages in flight finish, exit 0
 *   SIGPIPE         ignored (a peer gone is a failed write)
 *
 * supervise() tells the service manager READY=1 as it begins (keyseal-milter listens and
 * its helper is ready by then) and STOPPING=1 when a stop begins.  It returns the exit status: 0
 * only after a stop that was asked for; 1 when libmilter's loop ended by itself (logged with its
 * status) or no signing helper can be started.  A helper that dies is replaced every time
 * (milter/helper.h).
 *
 * Settings is thread-safe: get() from any thread; load() and reload() from the main
 * thread only.  A message keeps the settings it began with.
 */
#ifndef KEYSEAL_MILTER_SUPERVISOR_H
#define KEYSEAL_MILTER_SUPERVISOR_H

#include "milter/milter_conf.h"

#include <memory>
#include <mutex>
#include <string>

namespace keyseal_milter
{

class Helper;

class Settings
{
  public:
    explicit Settings(std::string path) : path_(std::move(path)) {}
    /* load - the settings at start; throws ConfigError */
    void load();
    /* reload - new settings for the messages to come; false (logged) keeps the running ones */
    bool reload();
    std::shared_ptr<const Config> get() const;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
    mutable std::mutex mutex_;
    std::shared_ptr<const Config> current_;
};

/* signals_block - the owned signals blocked in the calling thread, and SIGPIPE ignored */
void signals_block();

/* start_milter - libmilter's loop on a thread of its own; -1 with errno */
int start_milter();

/* supervise - the main thread's work until the end; returns the exit status */
int supervise(Settings &settings, Helper &helper);

/* write_pid - the pid file, for keyseal-admin rotate's reload; a failure is logged only */
void write_pid(const std::string &path);

} // namespace keyseal_milter

#endif
