#include "milter/supervisor.h"

#include "milter/client_filter.h"
#include "milter/helper.h"
#include "milter/metrics.h"
#include "milter/milter_log.h"
#include "milter/pool.h"
#include "milter/session.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <libmilter/mfapi.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <syslog.h>
#include <unistd.h>

namespace keyseal_milter
{

namespace
{

const int OWNED[] = {SIGHUP, SIGTERM, SIGINT};

sigset_t owned_set()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : OWNED)
        sigaddset(&set, sig);
    return set;
}

/* libmilter's loop: its status, and an eventfd that says it returned */
int milter_status = MI_SUCCESS;
int milter_ended = -1;

void *milter_thread(void *)
{
    milter_status = smfi_main();
    uint64_t one = 1;
    if (write(milter_ended, &one, sizeof(one)) < 0) {
        /* an eventfd's counter does not overflow at one */
    }
    return nullptr;
}

using Clock = std::chrono::steady_clock;

int ms_until(Clock::time_point t)
{
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t - Clock::now()).count();
    return (int)std::clamp<long>(ms, 0, 60000);
}

} // namespace

void Settings::load()
{
    auto fresh = std::make_shared<const Config>(keyseal_milter::load(path_));
    std::lock_guard<std::mutex> lock(mutex_);
    current_ = fresh;
}

bool Settings::reload()
{
    try {
        auto fresh = std::make_shared<Config>(keyseal_milter::load(path_));
        auto old = get();
        if (fresh->socket != old->socket) {
            halyx_log(LOG_WARNING,
                      "socket %s: the listening socket changes when keyseal-milter "
                      "restarts; it stays %s",
                      fresh->socket.c_str(), old->socket.c_str());
            fresh->socket = old->socket;
        }
        if (fresh->metrics != old->metrics) {
            halyx_log(LOG_WARNING,
                      "metrics %s: the metrics address changes when keyseal-milter restarts; "
                      "it stays %s",
                      fresh->metrics.empty() ? "none" : fresh->metrics.c_str(),
                      old->metrics.empty() ? "none" : old->metrics.c_str());
            fresh->metrics = old->metrics;
        }
        metrics_settings(metrics(), fresh->workers, fresh->metrics_per_domain);
        std::lock_guard<std::mutex> lock(mutex_);
        current_ = std::move(fresh);
    } catch (const ConfigError &e) {
        halyx_log(LOG_ERR, MILTER_LOG_RELOAD_FAILED, e.what());
        return false;
    }
    halyx_log(LOG_INFO, MILTER_LOG_RELOADED, path_.c_str());
    return true;
}

std::shared_ptr<const Config> Settings::get() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return current_;
}

void signals_block()
{
    sigset_t set = owned_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int start_milter()
{
    milter_ended = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (milter_ended < 0) return -1;
    pthread_t thread;
    int err = pthread_create(&thread, nullptr, milter_thread, nullptr);
    if (err != 0) return errno = err, -1;
    pthread_detach(thread);
    return 0;
}

int supervise(Settings &settings, Helper &helper)
{
    sigset_t set = owned_set();
    int sigfd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (sigfd < 0) {
        halyx_log(LOG_ERR, "cannot read signals: %s", strerror(errno));
        return 1;
    }
    /* a service manager waits for this before it counts the service started */
    sd_notify(0, "READY=1");
    int status = 0;
    bool stopping = false, restart_due = false;
    Clock::time_point restart_at, quiet_since, deadline;
    /* stop - no new connection; the messages in flight finish.  The library is not asked to
     * stop: it would end the sessions of the messages in flight at their next command.  New
     * connections find no socket file, or are closed at accept. */
    auto stop = [&](int exit_status) {
        if (stopping) return;
        stopping = true;
        status = exit_status;
        client_filter_close();
        sd_notify(0, "STOPPING=1");
        auto s = settings.get();
        std::string path = s->socket_file();
        if (!path.empty()) unlink(path.c_str());
        halyx_log(LOG_INFO, MILTER_LOG_STOPPING, in_flight());
        quiet_since = Clock::now();
        deadline = quiet_since + std::chrono::milliseconds(answer_wait_ms(
                                     Limits{(uint32_t)s->timeout, (uint32_t)s->workers}));
    };
    for (;;) {
        int wait = stopping ? 100 : -1;
        if (restart_due)
            wait = wait < 0 ? ms_until(restart_at) : std::min(wait, ms_until(restart_at));
        pollfd fds[3] = {
            {sigfd, POLLIN, 0}, {milter_ended, POLLIN, 0}, {helper.pidfd(), POLLIN, 0}};
        if (poll(fds, 3, wait) < 0 && errno != EINTR) {
            halyx_log(LOG_ERR, "cannot wait for events: %s", strerror(errno));
            stop(1);
            break;
        }
        signalfd_siginfo si;
        while (read(sigfd, &si, sizeof(si)) == (ssize_t)sizeof(si)) {
            if (si.ssi_signo == SIGHUP) {
                if (!stopping) metrics_reload(metrics(), settings.reload());
            } else {
                stop(0);
            }
        }
        if (fds[1].revents) {
            uint64_t n;
            if (read(milter_ended, &n, sizeof(n)) < 0) {
            }
            if (!stopping) {
                halyx_log(LOG_ERR, MILTER_LOG_LIBRARY_ENDED, milter_status);
                stop(1);
            }
        }
        if (fds[2].revents & (POLLIN | POLLHUP)) {
            restart_at = Clock::now() + std::chrono::milliseconds(helper.ended());
            restart_due = true;
        }
        if (restart_due && Clock::now() >= restart_at) {
            restart_due = false;
            if (helper.restart() == 0) {
                metrics().helper_restarts.fetch_add(1, std::memory_order_relaxed);
            } else {
                halyx_log(LOG_ERR, MILTER_LOG_HELPER_FAILED, strerror(errno));
                helper.stop(); /* the messages waiting for a helper are answered now */
                stop(1);
            }
        }
        /* a message is in flight from its MAIL FROM on, but the command may still wait in
         * the socket: the drain ends after a second with none, or at the deadline */
        auto now = Clock::now();
        if (in_flight() > 0) quiet_since = now;
        if (stopping && (now - quiet_since >= std::chrono::seconds(1) || now >= deadline)) break;
    }
    /* drained: the helper and its workers end with the channel, reaped here; messages
     * still in hands at the deadline are not waited for again */
    if (in_flight() == 0) helper.stop();
    auto s = settings.get();
    std::string path = s->socket_file();
    if (!path.empty()) unlink(path.c_str());
    if (!s->pid_file.empty()) unlink(s->pid_file.c_str());
    halyx_log(LOG_INFO, MILTER_LOG_STOPPED);
    return status;
}

void write_pid(const std::string &path)
{
    if (path.empty()) return;
    std::string text = std::to_string(getpid()) + "\n";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0 || write_all(fd, text.data(), text.size()) != 0)
        halyx_log(LOG_WARNING, "cannot write the pid file %s: %s", path.c_str(), strerror(errno));
    if (fd >= 0) close(fd);
}

} // namespace keyseal_milter
