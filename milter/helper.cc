#include "milter/helper.h"

#include "milter/channel.h"
#include "milter/milter_log.h"
#include "milter/pool.h"
#include "util/halyx_log.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <vector>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

extern char **environ;

namespace keyseal_milter
{

namespace
{

using Clock = std::chrono::steady_clock;

/* NOTE_MS - after a worker's end, how long the helper has to say why */
constexpr int NOTE_MS = 2000;

/* memory_file - a nameless file in memory, holding data */
int memory_file(const char *name, const std::string &data)
{
    int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd >= 0 && pwrite_all(fd, data.data(), data.size(), 0) != 0) {
        int err = errno;
        close(fd);
        return errno = err, -1;
    }
    return fd;
}

/* wait_readable - poll one descriptor: 1 readable (or hung up), 0 not within ms, -1 */
int wait_readable(int fd, int ms, short events = POLLIN)
{
    auto until = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        pollfd p{fd, events, 0};
        int ready = poll(&p, 1, ms);
        if (ready >= 0 || errno != EINTR) return ready;
        ms = (int)std::max<long>(
            0, std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count());
    }
}

} // namespace

/* Channel - a helper's request socket, and what the helper said on it: READY, and the
 * failed Results of jobs whose worker ended before its own.  Whoever waits for a word reads
 * the socket for all (one at a time); the others wait for it. */
struct Helper::Channel {
    int sock;
    std::mutex mutex;
    std::condition_variable heard;
    bool reading = false, ready = false, gone = false;
    std::map<uint64_t, std::pair<Result, Clock::time_point>> failed; /* by job number */

    explicit Channel(int s) : sock(s) {}
    ~Channel() { close(sock); }

    /* await - until said() holds, the helper's end closes, or the time is up; under
     * the lock, with it held */
    template <class Said>
    void await(std::unique_lock<std::mutex> &lock, Clock::time_point until, Said said)
    {
        while (!said() && !gone && Clock::now() < until) {
            if (reading) {
                heard.wait_until(lock, until);
                continue;
            }
            reading = true;
            lock.unlock();
            std::vector<Word> words;
            bool ended = false;
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            if (wait_readable(sock, (int)std::max<long>(left.count(), 0)) > 0) {
                static thread_local char buf[65536];
                for (;;) {
                    ssize_t n = recv(sock, buf, sizeof(buf), MSG_DONTWAIT);
                    if (n == 0) ended = true;
                    if (n <= 0) break;
                    Word w;
                    if (decode(std::string_view(buf, (size_t)n), w)) words.push_back(std::move(w));
                }
            }
            lock.lock();
            reading = false;
            gone = gone || ended;
            auto now = Clock::now();
            for (Word &w : words) {
                if (w.answer == Answer::READY) ready = true;
                if (w.answer == Answer::FAILED) failed[w.seq] = {std::move(w.result), now};
            }
            /* words for jobs that stopped waiting are not kept for ever */
            std::erase_if(failed, [&](const auto &f) {
                return now - f.second.second > std::chrono::minutes(1);
            });
            heard.notify_all();
        }
    }
};

std::shared_ptr<Helper::Channel> Helper::channel(std::chrono::milliseconds wait,
                                                 const std::shared_ptr<Channel> &dead) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    auto usable = [&] { return channel_ != nullptr && channel_ != dead; };
    changed_.wait_for(lock, wait, [&] { return usable() || stopped_; });
    return usable() ? channel_ : nullptr;
}
/* spawn - a new helper from this very program, its request socket as descriptor 3 and
 * nothing else of ours; waits for its READY */
int Helper::spawn()
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return -1;
    static char *const argv[] = {(char *)MILTER_IDENT, (char *)POOL_ARGUMENT, nullptr};
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attr);
    /* a threaded process's child runs nothing of ours before exec; the signals we handle
     * are at their defaults (pool_main sets its own dispositions and mask) */
    posix_spawn_file_actions_adddup2(&files, sv[1], POOL_REQUESTS_FD);
    posix_spawn_file_actions_addclosefrom_np(&files, POOL_REQUESTS_FD + 1);
    sigset_t none, ours;
    sigemptyset(&none);
    sigemptyset(&ours);
    for (int sig : {SIGHUP, SIGINT, SIGTERM, SIGCHLD})
        sigaddset(&ours, sig);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &ours);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid;
    int err = posix_spawn(&pid, "/proc/self/exe", &files, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attr);
    close(sv[1]);
    if (err != 0) {
        close(sv[0]);
        return errno = err, -1;
    }
    /* jobs may come at once: they wait in the socket while it warms up */
    auto fresh = std::make_shared<Channel>(sv[0]);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        channel_ = fresh;
    }
    changed_.notify_all();
    int fd = (int)syscall(SYS_pidfd_open, pid, 0);
    /* its word that it is ready; its end, or silence, and it is no helper */
    bool ready = false, gone = false;
    if (fd >= 0) {
        std::unique_lock<std::mutex> lock(fresh->mutex);
        fresh->await(lock, Clock::now() + std::chrono::milliseconds(READY_MS),
                     [&] { return fresh->ready; });
        ready = fresh->ready, gone = fresh->gone;
    }
    if (!ready) {
        err = fd < 0 ? errno : gone ? ECONNRESET : ETIMEDOUT;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            channel_.reset();
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        if (fd >= 0) close(fd);
        return errno = err, -1;
    }
    pid_ = pid;
    pidfd_ = fd;
    started_ = Clock::now();
    return 0;
}

int Helper::start()
{
    return spawn();
}

int Helper::ended()
{
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    close(pidfd_);
    pidfd_ = -1;
    {
        /* new jobs fail at once, with retry, until the next helper is there */
        std::lock_guard<std::mutex> lock(mutex_);
        channel_.reset();
    }
    halyx_log(LOG_ERR, MILTER_LOG_HELPER_ENDED, (int)pid_, ended_how(status).c_str());
    pid_ = -1;
    bool young = Clock::now() - started_ < std::chrono::milliseconds(YOUNG_MS);
    backoff_ms_ = !young ? 0 : std::min<int>(BACKOFF_MAX_MS, backoff_ms_ * 2 ?: BACKOFF_MIN_MS);
    return backoff_ms_;
}

int Helper::restart()
{
    if (spawn() != 0) return -1;
    restarts_++;
    halyx_log(LOG_INFO, MILTER_LOG_HELPER_STARTED, (int)pid_, restarts_);
    return 0;
}

void Helper::stop()
{
    std::shared_ptr<Channel> ch;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ch.swap(channel_);
        stopped_ = true;
    }
    changed_.notify_all();
    /* at once, whoever still holds the channel: a job sent later fails with retry */
    if (ch) shutdown(ch->sock, SHUT_WR);
    if (pidfd_ < 0) return;
    int longest = std::max(longest_wait_ms_.load(), answer_wait_ms(Limits{}));
    if (wait_readable(pidfd_, longest) <= 0) kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    close(pidfd_);
    pidfd_ = -1;
    pid_ = -1;
}

Result Helper::run(const Job &job, int message_fd, const Limits &limits)
{
    /* a helper being replaced is waited for, within the message's time limit */
    auto give_up = Clock::now() + std::chrono::seconds(limits.timeout);
    auto left = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(give_up - Clock::now());
    };
    std::shared_ptr<Channel> ch = channel(left(), nullptr);
    if (!ch) return retryable("the signing helper is not running");
    int wait_ms = answer_wait_ms(limits);
    for (int seen = longest_wait_ms_.load(); seen < wait_ms;)
        if (longest_wait_ms_.compare_exchange_weak(seen, wait_ms)) break;

    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    Request request{++jobs_, (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec, limits,
                    true, encode(job)};
    int fds[REQUEST_FDS_MAX] = {message_fd, -1, -1};
    int done[2] = {-1, -1};
    if (request.job.size() > JOB_INLINE_MAX) {
        request.job_inline = false;
        fds[REQUEST_JOB] = memory_file("keyseal-milter job", request.job);
        request.job.clear();
    }
    if ((!request.job_inline && fds[REQUEST_JOB] < 0) || pipe2(done, O_CLOEXEC) != 0) {
        std::string why = std::string("cannot hand the message over: ") + strerror(errno);
        for (int fd : {fds[REQUEST_JOB], done[0], done[1]})
            if (fd >= 0) close(fd);
        return retryable(why);
    }
    fds[REQUEST_DONE] = done[1];
    std::string bytes = encode(request);
    /* with every worker busy and the socket's queue full, room is waited for within the
     * time limit, never longer */
    auto send = [&] {
        for (;;) {
            if (send_fds(ch->sock, bytes.data(), bytes.size(), fds, request_fds(request),
                         MSG_DONTWAIT) == 0)
                return 0;
            if (errno != EAGAIN) return -1;
            if (wait_readable(ch->sock, (int)std::max<long>(left().count(), 0), POLLOUT) <= 0)
                return errno = ETIMEDOUT, -1;
        }
    };
    int sent = send();
    int send_errno = errno;
    /* a helper that died before its end was seen: the job goes to the one replacing it */
    while (sent != 0 && (send_errno == EPIPE || send_errno == ECONNRESET) &&
           (ch = channel(left(), ch)) != nullptr) {
        sent = send();
        send_errno = errno;
    }
    if (fds[REQUEST_JOB] >= 0) close(fds[REQUEST_JOB]);
    close(done[1]); /* the worker's alone now: its end is the job's end */
    if (sent != 0) {
        close(done[0]);
        if (send_errno == ETIMEDOUT) return no_worker_free(limits.timeout, limits.workers);
        return retryable(std::string("the signing helper does not take work: ") +
                         strerror(send_errno));
    }

    /* the worker's framed Result, or the helper's word in its place; the first whole one
     * counts, without waiting for the pipe's end */
    auto until = Clock::now() + std::chrono::milliseconds(wait_ms);
    std::string said;
    std::string_view record;
    bool ended = false, whole = false;
    char buf[4096];
    while (!ended && !whole) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (wait_readable(done[0], (int)std::max<long>(left.count(), 0)) <= 0) break;
        ssize_t n = read(done[0], buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            ended = true;
        else
            said.append(buf, (size_t)n), whole = unframe(said, record);
    }
    close(done[0]);
    Result r;
    if (whole && decode(record, r)) return r;
    if (whole) return retryable("the handler's result could not be read");
    if (!ended)
        return retryable("no answer from the signing helper within " +
                         std::to_string(wait_ms / 1000) + " s");
    /* the worker ended first: the helper, which reaps it, says why */
    std::unique_lock<std::mutex> lock(ch->mutex);
    auto note_until = std::min(until, Clock::now() + std::chrono::milliseconds(NOTE_MS));
    ch->await(lock, note_until, [&] { return ch->failed.count(request.seq) > 0; });
    auto f = ch->failed.find(request.seq);
    if (f == ch->failed.end())
        return retryable("the signing helper ended before the handler's result came back");
    r = std::move(f->second.first);
    ch->failed.erase(f);
    return r;
}

} // namespace keyseal_milter
