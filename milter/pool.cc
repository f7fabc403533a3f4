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

/* Task - a job request in the helper's hands: its datagram and descriptors until a worker
 * has them, and its own copy of the done pipe until the job is over */
struct Task {
    std::string request; /* the datagram, passed on as it came */
    int fds[REQUEST_FDS_MAX] = {-1, -1, -1};
    int count = 0; /* descriptors that came with it */
    Clock::time_point deadline;
    uint32_t timeout = 0;

    int done() const { return fds[REQUEST_DONE]; }
    /* hand_over - the worker has its own copies now: the message and job files go */
    void hand_over()
    {
        for (int i : {REQUEST_MESSAGE, REQUEST_JOB})
            if (fds[i] >= 0) close(fds[i]), fds[i] = -1;
    }
    /* finish - the job is over: the worker wrote its Result, or failure is written here */
    void finish(const Result *failure)
    {
        hand_over();
        int &done = fds[REQUEST_DONE];
        if (done < 0) return;
        if (failure != nullptr) {
            std::string out = frame(encode(*failure));
            write_all(done, out.data(), out.size());
        }
        close(done);
        done = -1;
    }
    /* drop - in a new worker: none of this is its own */
    void drop()
    {
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
};

struct Process {
    pid_t pid;
    int sock; /* the helper's end of the worker's socket */
    Task job; /* busy: the job it serves (its done pipe open) */
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

/* call_me_worker - the command line says POOL_WORKER_ARGUMENT from here on: the argument's
 * bytes, which follow the program name's in the process's memory, written over in place */
void call_me_worker()
{
    static_assert(sizeof(POOL_WORKER_ARGUMENT) == sizeof(POOL_ARGUMENT));
    char *arg = program_invocation_name + strlen(program_invocation_name) + 1;
    if (strcmp(arg, POOL_ARGUMENT) == 0)
        memcpy(arg, POOL_WORKER_ARGUMENT, sizeof(POOL_WORKER_ARGUMENT));
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
            if (w.busy) w.job.drop();
        }
        for (Task &j : waiting)
            j.drop();
        call_me_worker();
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
            if (send_fds(w->sock, job.request.data(), job.request.size(), job.fds, job.count) ==
                0) {
                job.hand_over();
                w->job = std::move(job);
                w->busy = true;
                w->termed = false;
                job.fds[REQUEST_DONE] = -1;
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

    /* answered - what a busy worker said: DONE, its Result is written; LAST, the same, and
     * it ends.  Its end closed, it died: the reaping tells the milter. */
    void answered(size_t i)
    {
        Process &w = workers[i];
        char c;
        ssize_t n = recv(w.sock, &c, 1, MSG_DONTWAIT);
        if (n < 0) return;
        Answer said;
        if (n == 0 || !decode(std::string_view(&c, 1), said) || said == Answer::READY) {
            w.hung_up = true; /* no word of a worker: it is ending, or is killed below */
            if (n != 0) kill(w.pid, SIGKILL);
            return;
        }
        w.job.finish(nullptr);
        w.busy = false;
        w.used = ++jobs_done;
        if (said == Answer::LAST) retire(i);
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
                Result r =
                    retryable(w->termed ? "the handler ran past the time limit of " +
                                              std::to_string(w->job.timeout) + " s and was killed"
                                        : "the handler ended (" + ended_how(status) + ")");
                w->job.finish(&r);
            }
            retire((size_t)(w - workers.begin()));
        }
        dispatch_waiting();
    }

    /* request - one job from the milter: to a worker now, or to wait for one; false when
     * the milter's end is closed */
    bool request()
    {
        static char buf[REQUEST_BYTES_MAX];
        Task job;
        ssize_t n = receive_fds(requests, buf, sizeof(buf), job.fds, REQUEST_JOB, REQUEST_FDS_MAX,
                                &job.count);
        if (n < 0) return errno != ECONNRESET;
        job.request.assign(buf, (size_t)n);
        Request r;
        if (!decode(job.request, r) || request_fds(r) != job.count) {
            Result failed = retryable("the request could not be read");
            job.finish(&failed);
            return true;
        }
        cap = r.limits.workers;
        job.timeout = r.limits.timeout;
        job.deadline = Clock::now() + std::chrono::seconds(r.limits.timeout);
        if (!waiting.empty() || !dispatch(job)) waiting.push_back(std::move(job));
        return true;
    }

    /* enforce - time limits: a busy worker's, and a waiting job's */
    void enforce(Clock::time_point now)
    {
        for (Process &w : workers) {
            if (!w.busy) continue;
            if (!w.termed && now >= w.job.deadline) {
                kill(w.pid, SIGTERM);
                w.termed = true;
                w.job.deadline = now + std::chrono::seconds(KILL_GRACE);
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
    prctl(PR_SET_NAME, MILTER_IDENT); /* not "exe", after the /proc/self/exe it was run as */
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
    std::string ready = encode(Answer::READY);
    if (p.sigfd < 0 || send(requests, ready.data(), ready.size(), MSG_NOSIGNAL) < 0) _exit(1);
    bool open = true;
    std::vector<pollfd> fds;
    std::vector<pid_t> busy;
    while (open || p.any_busy() || !p.waiting.empty()) {
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
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR)) || p.request()) continue;
        /* the milter closed its end: the jobs in hand are finished, no new one comes */
        open = false;
        for (size_t i = p.workers.size(); i-- > 0;)
            if (!p.workers[i].busy) p.retire(i);
    }
    _exit(0);
}

} // namespace keyseal_milter
