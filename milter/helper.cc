#include "milter/helper.h"

#include "milter/channel.h"
#include "milter/pool.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "milter/milter_log.h"
#include "util/halyx_log.h"

namespace keyseal_milter
{

namespace
{

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

} // namespace

struct Helper::Channel {
    int sock;
    explicit Channel(int s) : sock(s) {}
    ~Channel() { close(sock); }
};

std::shared_ptr<Helper::Channel> Helper::channel() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return channel_;
}

pid_t Helper::spawn(int &pidfd)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return -1;
    static char *const argv[] = {(char *)"keyseal-milter", (char *)POOL_ARGUMENT, nullptr};
    pid_t pid = fork();
    if (pid == 0) {
        /* a fork of a threaded process: nothing but system calls until exec.  Only the
         * request socket crosses, as descriptor 3. */
        if (dup2(sv[1], POOL_REQUESTS_FD) < 0) _exit(127);
        syscall(SYS_close_range, POOL_REQUESTS_FD + 1, ~0U, 0);
        execv("/proc/self/exe", argv);
        _exit(127);
    }
    close(sv[1]);
    if (pid < 0) {
        int err = errno;
        close(sv[0]);
        return errno = err, -1;
    }
    pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
    auto fresh = std::make_shared<Channel>(sv[0]);
    std::lock_guard<std::mutex> lock(mutex_);
    channel_ = fresh;
    return pid;
}

int Helper::start()
{
    pid_ = spawn(pidfd_);
    if (pid_ < 0 || pidfd_ < 0) return -1;
    return 0;
}

int Helper::ended()
{
    int st = 0;
    waitpid(pid_, &st, 0);
    close(pidfd_);
    pidfd_ = -1;
    std::string how = WIFSIGNALED(st) ? std::string("killed by SIG") + sigabbrev_np(WTERMSIG(st))
                                      : "exit status " + std::to_string(WEXITSTATUS(st));
    halyx_log(LOG_ERR, MILTER_LOG_HELPER_ENDED, (int)pid_, how.c_str());
    return 0;
}

int Helper::restart()
{
    restarts_++;
    return start();
}

Result Helper::run(const Job &job, int message_fd, const Limits &limits)
{
    std::shared_ptr<Channel> ch = channel();
    if (!ch) return retryable("the signing helper is not running");
    int job_fd = memory_file("keyseal-milter job", encode(job));
    int result_fd = memfd_create("keyseal-milter result", MFD_CLOEXEC);
    int done[2] = {-1, -1};
    if (job_fd < 0 || result_fd < 0 || pipe2(done, O_CLOEXEC) != 0) {
        std::string why = std::string("cannot hand the message over: ") + strerror(errno);
        for (int fd : {job_fd, result_fd, done[0], done[1]})
            if (fd >= 0) close(fd);
        return retryable(why);
    }
    std::string request = encode(limits);
    int fds[4] = {job_fd, message_fd, result_fd, done[1]};
    int sent = send_fds(ch->sock, request.data(), request.size(), fds, 4);
    int send_errno = errno;
    close(job_fd);
    close(done[1]); /* the helper's alone now: its end is the job's end */
    ch.reset();
    if (sent != 0) {
        close(done[0]), close(result_fd);
        return retryable(std::string("the signing helper does not take work: ") +
                         strerror(send_errno));
    }

    /* the helper answers within the time limit and the kill grace; past that, and a
     * little, it is not answering at all */
    int wait_ms = ((int)limits.timeout + POOL_KILL_GRACE + 5) * 1000;
    std::string said;
    bool ended = false;
    char buf[4096];
    while (!ended) {
        pollfd p{done[0], POLLIN, 0};
        int ready = poll(&p, 1, wait_ms);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        ssize_t n = read(done[0], buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            ended = true;
        else
            said.append(buf, (size_t)n);
    }
    close(done[0]);
    Result r;
    std::string written;
    if (!ended)
        r = retryable("no answer from the signing helper within " + std::to_string(wait_ms / 1000) +
                      " s");
    else if (!said.empty() && decode(said, r))
        ; /* the helper's own word: the worker died, ran out of time, or none was free */
    else if (read_file(result_fd, written) != 0 || !decode(written, r))
        r = retryable("the signing helper ended before the handler's result came back");
    close(result_fd);
    return r;
}

} // namespace keyseal_milter
