#include "milter/pool.h"

#include "dkim/dk_sign.h"
#include "milter/channel.h"
#include "milter/milter_log.h"
#include "milter/records.h"
#include "milter/worker.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace keyseal_milter
{

namespace
{

enum {
    SPARES = 4,    /* idle workers kept ready, forked while nothing waits */
    IDLE_MAX = 16, /* more idle than this after a burst, and one is let go */
    MAX_USE = 100, /* messages a worker serves before it ends */
};

using Clock = std::chrono::steady_clock;

/* Task - a job request in the helper's hands: its three files until a worker has them, and the
 * done pipe until the job is over */
struct Task {
    int files[3] = {-1, -1, -1}; /* the encoded Job, the message, the Result's file */
    int done = -1;
    Clock::time_point deadline;
    uint32_t timeout = 0;

    void close_files()
    {
        for (int &fd : files)
            if (fd >= 0) close(fd), fd = -1;
    }
    /* finish - the job is over: the milter reads the Result file, or failure when given */
    void finish(const Result *failure)
    {
        close_files();
        if (done < 0) return;
        if (failure != nullptr) {
            std::string out = encode(*failure);
            write_all(done, out.data(), out.size());
        }
        close(done);
        done = -1;
    }
};

struct Process {
    pid_t pid;
    int sock; /* the helper's end of the worker's socket */
    Task job; /* busy: the job it serves (done >= 0) */
    bool busy = false;
    bool termed = false;    /* SIGTERM sent for the time limit */
    bool hung_up = false;   /* its end closed: it is ending, to be reaped */
    unsigned long used = 0; /* when it last finished a job, on the helper's count */
};

/* warm_up - one signature with a throwaway key: OpenSSL's configuration, providers and
 * decoders, and libopendkim's tables, are then loaded once here and inherited by every
 * worker, instead of once per message.  Nothing of a message is involved. */
void warm_up()
{
    EVP_PKEY *key = EVP_RSA_gen(1024);
    BIO *pem = BIO_new(BIO_s_mem());
    char *text = nullptr;
    if (key != nullptr && pem != nullptr &&
        PEM_write_bio_PKCS8PrivateKey(pem, key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
        BIO_write(pem, "", 1) == 1 && BIO_get_mem_data(pem, &text) > 0) {
        static const char SAMPLE[] = "From: warm-up <w@keyseal.invalid>\n\nwarm-up\n";
        FILE *msg = fmemopen((void *)SAMPLE, sizeof(SAMPLE) - 1, "r");
        if (msg != nullptr) {
            dk_result_free(keyseal("keyseal.invalid", "warm-up", text, msg));
            fclose(msg);
        }
    }
    BIO_free(pem);
    EVP_PKEY_free(key);
    tzset(); /* syslog's time stamps: /etc/localtime, read once */
}

struct Pool {
    int requests, sigfd;
    sigset_t chld;
    std::vector<Process> workers;
    std::deque<Task> waiting;
    size_t cap = 1;
    unsigned long jobs_done = 0;
    pid_t self = getpid();

    size_t idle() const
    {
        return (size_t)std::count_if(workers.begin(), workers.end(),
                                     [](const Process &w) { return !w.busy; });
    }

    /* idle_worker - the idle worker used last (its pages are the warmest) or, with
     * coldest, the one used longest ago; workers.end() when none is idle */
    std::vector<Process>::iterator idle_worker(bool coldest)
    {
        auto pick = workers.end();
        for (auto w = workers.begin(); w != workers.end(); ++w)
            if (!w->busy &&
                (pick == workers.end() || (coldest ? w->used < pick->used : w->used >= pick->used)))
                pick = w;
        return pick;
    }

    /* in_child - a new worker keeps nothing of the helper's: above all no done pipe, whose
     * reader waits for every write end to close, and no other message's files */
    void in_child()
    {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != self) _exit(0); /* the helper died before that took hold */
        sigprocmask(SIG_UNBLOCK, &chld, nullptr);
        close(requests);
        close(sigfd);
        for (Process &w : workers) {
            close(w.sock);
            if (w.busy) w.job.close_files(), close(w.job.done);
        }
        for (Task &j : waiting)
            j.close_files(), close(j.done);
    }

    /* start_worker - a new idle worker, the last in workers; false if none could be made */
    bool start_worker()
    {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return false;
        pid_t pid = fork();
        if (pid == 0) {
            in_child();
            close(sv[0]);
            worker_main(sv[1], MAX_USE);
        }
        close(sv[1]);
        if (pid < 0) {
            close(sv[0]);
            halyx_log(LOG_ERR, "cannot start a worker: %s", strerror(errno));
            return false;
        }
        workers.push_back({pid, sv[0], {}});
        return true;
    }

    /* retire - a worker is let go: it ends when it reads the closed socket */
    void retire(size_t i)
    {
        close(workers[i].sock);
        workers[i].job.finish(nullptr);
        workers.erase(workers.begin() + (long)i);
    }

    /* dispatch - the job to the warmest idle worker, or to a new one under the cap;
     * false when every worker is busy and there may be no more */
    bool dispatch(Task &job)
    {
        for (size_t tries = 0; tries <= workers.size() + 1; tries++) {
            auto w = idle_worker(false);
            if (w == workers.end()) {
                if (workers.size() >= cap || !start_worker()) return false;
                w = workers.end() - 1;
            }
            if (send_fds(w->sock, "J", 1, job.files, 3) == 0) {
                job.close_files(); /* the worker has them now */
                w->job = job;
                w->busy = true;
                w->termed = false;
                job.done = -1;
                return true;
            }
            kill(w->pid, SIGKILL); /* a worker that cannot take it is of no use */
            retire((size_t)(w - workers.begin()));
        }
        return false;
    }

    void dispatch_waiting()
    {
        while (!waiting.empty() && dispatch(waiting.front()))
            waiting.pop_front();
    }

    /* answered - what a busy worker said: "D" its Result is written; "E" the same, and it
     * ends.  Its end closed, it died: the reaping tells the milter. */
    void answered(size_t i)
    {
        Process &w = workers[i];
        char c;
        ssize_t n = recv(w.sock, &c, 1, MSG_DONTWAIT);
        if (n < 0) return;
        if (n == 0) {
            w.hung_up = true;
            return;
        }
        w.job.finish(nullptr);
        w.busy = false;
        w.used = ++jobs_done;
        if (c != 'D') retire(i);
        dispatch_waiting();
        while (idle() > IDLE_MAX || (workers.size() > cap && idle() > 0))
            retire((size_t)(idle_worker(true) - workers.begin()));
    }

    void reap()
    {
        signalfd_siginfo si;
        while (read(sigfd, &si, sizeof(si)) > 0) {
        }
        int status;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            auto w = std::find_if(workers.begin(), workers.end(),
                                  [pid](const Process &p) { return p.pid == pid; });
            if (w == workers.end()) continue; /* retired */
            if (w->busy) {
                std::string why =
                    w->termed ? "the handler ran past the time limit of " +
                                    std::to_string(w->job.timeout) + " s and was killed"
                    : WIFSIGNALED(status)
                        ? std::string("the handler was killed by SIG") +
                              sigabbrev_np(WTERMSIG(status))
                        : "the handler ended with status " + std::to_string(WEXITSTATUS(status));
                Result r = retryable(why);
                w->job.finish(&r);
            }
            retire((size_t)(w - workers.begin()));
        }
        dispatch_waiting();
    }

    /* request - one job from the milter: to a worker now, or to wait for one */
    void request()
    {
        char buf[64];
        Task job;
        int fds[4];
        ssize_t n = receive_fds(requests, buf, sizeof(buf), fds, 4);
        if (n < 0) return;
        std::copy(fds, fds + 3, job.files);
        job.done = fds[3];
        Limits limits;
        if (!decode(std::string_view(buf, (size_t)n), limits)) {
            Result r = retryable("the request could not be read");
            job.finish(&r);
            return;
        }
        cap = limits.workers;
        job.timeout = limits.timeout;
        job.deadline = Clock::now() + std::chrono::seconds(limits.timeout);
        if (!waiting.empty() || !dispatch(job)) waiting.push_back(job);
    }

    /* enforce - time limits: a busy worker's, and a waiting job's */
    void enforce(Clock::time_point now)
    {
        for (Process &w : workers) {
            if (!w.busy) continue;
            if (!w.termed && now >= w.job.deadline) {
                kill(w.pid, SIGTERM);
                w.termed = true;
                w.job.deadline = now + std::chrono::seconds(POOL_KILL_GRACE);
            } else if (w.termed && now >= w.job.deadline) {
                kill(w.pid, SIGKILL);
            }
        }
        while (!waiting.empty() && now >= waiting.front().deadline) {
            Result r = retryable("no worker was free within the time limit of " +
                                 std::to_string(waiting.front().timeout) + " s (workers " +
                                 std::to_string(cap) + ")");
            waiting.front().finish(&r);
            waiting.pop_front();
        }
    }

    /* next_wait - milliseconds until the next deadline, at most a second */
    int next_wait(Clock::time_point now) const
    {
        auto next = now + std::chrono::seconds(1);
        for (const Process &w : workers)
            if (w.busy) next = std::min(next, w.job.deadline);
        if (!waiting.empty()) next = std::min(next, waiting.front().deadline);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
        return (int)std::max<long>(ms, 0) + 1;
    }

    bool any_busy() const
    {
        return std::any_of(workers.begin(), workers.end(), [](const Process &w) { return w.busy; });
    }
};

} // namespace

void pool_main(int requests)
{
    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, 0, MILTER_IDENT);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN); /* the milter reloads; its helper follows the milter */
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    warm_up();
    Pool p;
    p.requests = requests;
    sigemptyset(&p.chld);
    sigaddset(&p.chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &p.chld, nullptr);
    p.sigfd = signalfd(-1, &p.chld, SFD_CLOEXEC | SFD_NONBLOCK);
    bool open = true;
    std::vector<pollfd> fds;
    std::vector<pid_t> busy;
    while (open || p.any_busy()) {
        /* spares are made while nothing waits for the helper */
        while (open && p.idle() < SPARES && p.workers.size() < p.cap && p.start_worker()) {
        }
        auto now = Clock::now();
        p.enforce(now);
        fds.assign({{open ? requests : -1, POLLIN, 0}, {p.sigfd, POLLIN, 0}});
        busy.clear();
        for (const Process &w : p.workers) {
            if (!w.busy || w.hung_up) continue;
            fds.push_back({w.sock, POLLIN, 0});
            busy.push_back(w.pid);
        }
        if (poll(fds.data(), fds.size(), p.next_wait(now)) < 0 && errno != EINTR) _exit(1);
        for (size_t i = 0; i < busy.size(); i++) {
            if (!fds[2 + i].revents) continue;
            auto w = std::find_if(p.workers.begin(), p.workers.end(),
                                  [&](const Process &x) { return x.pid == busy[i]; });
            if (w != p.workers.end()) p.answered((size_t)(w - p.workers.begin()));
        }
        if (fds[1].revents) p.reap();
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char peek;
        if (recv(requests, &peek, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
            /* the milter is gone: nobody reads what is still in hand */
            open = false;
            Result r = retryable("keyseal-milter stopped");
            for (Task &j : p.waiting)
                j.finish(&r);
            p.waiting.clear();
            for (size_t i = p.workers.size(); i-- > 0;) {
                if (p.workers[i].busy)
                    kill(p.workers[i].pid, SIGTERM);
                else
                    p.retire(i);
            }
            continue;
        }
        p.request();
    }
    _exit(0);
}

} // namespace keyseal_milter
