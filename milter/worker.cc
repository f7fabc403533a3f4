#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mh_handler.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <algorithm>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char *program_invocation_short_name;

namespace keyseal_milter
{

namespace
{

enum {
    KILL_GRACE = 5,        /* seconds between SIGTERM and SIGKILL */
    REQUEST_MAX = 1 << 20, /* one job's arguments and environment */
    SPARES = 4,            /* idle workers kept ready, forked while nothing waits */
    IDLE_MAX = 16,         /* more idle than this after a burst, and one is let go */
    MAX_USE = 100,         /* messages a worker serves before it ends */
};

int requests = -1; /* the milter's end of the helper's socket */
pid_t helper = -1;

/*
 * A job travels as one datagram: the words (queue id, context, from, the recipients,
 * "", the environment) NUL-separated, with the message file and the result pipe's write
 * end attached.  The worker writes its result into the pipe as lines: "C n" for a cut
 * header, "S length" and the header's bytes on PASS, and last "X status", the engine's
 * exit status.  The helper, once it has reaped a worker that died on a job, adds
 * "W status timed_out": the reader's answer when there was no X.
 */
bool send_job(int sock, const char *words, size_t length, const int fds[2])
{
    char control[CMSG_SPACE(2 * sizeof(int))] = {};
    iovec iov{(void *)words, length};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(2 * sizeof(int));
    memcpy(CMSG_DATA(c), fds, 2 * sizeof(int));
    ssize_t n;
    do
        n = sendmsg(sock, &msg, MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    return n == (ssize_t)length;
}

/* receive_job - one job from sock into buf: its length (0: the sender is gone, -1: no
 * job in it) with the two descriptors in fd */
ssize_t receive_job(int sock, std::vector<char> &buf, int fd[2])
{
    char control[CMSG_SPACE(2 * sizeof(int))] = {};
    iovec iov{buf.data(), buf.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n;
    do
        n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
    while (n < 0 && errno == EINTR);
    if (n <= 0) return 0;
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    if (c == nullptr || c->cmsg_type != SCM_RIGHTS || c->cmsg_len != CMSG_LEN(2 * sizeof(int)))
        return -1;
    memcpy(fd, CMSG_DATA(c), 2 * sizeof(int));
    return n;
}

std::vector<std::string> split_words(const std::vector<char> &buf, size_t n)
{
    std::vector<std::string> words;
    for (size_t at = 0; at < n;) {
        size_t len = strnlen(buf.data() + at, n - at);
        words.emplace_back(buf.data() + at, len);
        at += len + 1;
    }
    return words;
}

/* report - the engine's observer in the worker: what the milter must apply */
void report(void *data, int event, int number, const char *text)
{
    int fd = *(int *)data;
    char line[64];
    if (event == DK_EVENT_CUT) {
        int n = snprintf(line, sizeof(line), "C %d\n", number);
        write_all(fd, line, (size_t)n);
    } else if (event == DK_EVENT_SIGNED) {
        int n = snprintf(line, sizeof(line), "S %zu\n", strlen(text));
        write_all(fd, line, (size_t)n);
        write_all(fd, text, strlen(text));
    }
}

/* serve - the handler for one message: its start-up, then the engine on the file.  Every
 * piece of the handler's state is set afresh here (environment, log identity and trace
 * id, OpenSSL's error queue); the engine keeps none between calls.  Closes both files. */
void serve(std::vector<std::string> &words, int message, int result)
{
    /* words: queue id, context, from, recipients..., "", environment..., and last the
     * trace id's variable, added by the worker: putenv keeps pointers into them */
    clearenv();
    ERR_clear_error();
    size_t i = 3;
    std::vector<char *> argv{(char *)"keyseal", words[1].data(), words[2].data()};
    for (; i < words.size() && !words[i].empty(); i++)
        argv.push_back(words[i].data());
    argv.push_back(nullptr);
    for (i++; i < words.size(); i++)
        putenv(words[i].data());

    int status = DK_ENGINE_FAILED;
    mh_handler_context ctx;
    FILE *in = nullptr;
    if (mh_handler_prepare(&ctx, (int)argv.size() - 1, argv.data()) != 0) {
        halyx_log(LOG_ERR, DK_LOG_INIT_FAILED);
    } else if (lseek(message, 0, SEEK_SET) == 0 && (in = fdopen(message, "r")) != nullptr) {
        dk_engine_job job = {ctx.from_domain, ctx.context, in, nullptr, report, &result};
        status = dk_engine_run(&job);
    }
    char line[32];
    write_all(result, line, (size_t)snprintf(line, sizeof(line), "X %d\n", status));
    in != nullptr ? fclose(in) : close(message);
    close(result);
    clearenv(); /* before the words it points into go */
}

/* worker_loop - a worker's life: jobs one at a time from the helper, each answered with
 * one byte once its result is written, up to MAX_USE; the helper gone, it ends */
[[noreturn]] void worker_loop(int sock, std::vector<char> &buf)
{
    /* the handler's lines, under the handler's name: keyseal-admin report counts them */
    program_invocation_short_name = (char *)"keyseal";
    for (int served = 0; served < MAX_USE; served++) {
        int fd[2];
        ssize_t n = receive_job(sock, buf, fd);
        if (n <= 0) _exit(0); /* the helper is gone, or sent no job */
        std::vector<std::string> words = split_words(buf, (size_t)n);
        words.push_back("HALYX_LOG_TRACE_ID=" + words[0]);
        serve(words, fd[0], fd[1]);
        if (send(sock, served + 1 < MAX_USE ? "D" : "E", 1, MSG_NOSIGNAL) != 1) _exit(0);
    }
    /* nothing is buffered and no spool file is left: no exit handler has work to do, and
     * OpenSSL's teardown would cost more than the rest */
    _exit(0);
}

/* warm_up - one signature with a throwaway key: OpenSSL's configuration, providers and
 * decoders, and libopendkim's tables, are then loaded once here and inherited by every
 * worker, instead of once per message.  Nothing of a message is involved. */
void warm_up()
{
    EVP_PKEY *key = EVP_RSA_gen(1024);
    BIO *pem = BIO_new(BIO_s_mem());
    char *text = nullptr;
    if (key != nullptr && pem != nullptr &&
        PEM_write_bio_PrivateKey(pem, key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
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

/* A worker is forked by the helper and serves one message at a time.  Busy, the helper
 * keeps its own copy of the job's result pipe: should the worker die before its X, the
 * helper's W still reaches the reader. */
struct Process {
    pid_t pid;
    int sock;            /* the helper's end of the worker's socket */
    int result = -1;     /* busy: the job's result pipe; idle: -1 */
    time_t deadline = 0; /* SIGTERM then; SIGKILL KILL_GRACE later */
    bool termed = false;
    bool hung_up = false;   /* its end is closed: it is ending, to be reaped */
    unsigned long used = 0; /* when it last finished a job, on the helper's count */
};

struct Helper {
    int requests, sigfd;
    sigset_t chld;
    std::vector<Process> workers;
    unsigned long jobs_done = 0;
    std::vector<char> buf = std::vector<char>(REQUEST_MAX);

    size_t idle() const
    {
        return (size_t)std::count_if(workers.begin(), workers.end(),
                                     [](const Process &w) { return w.result < 0; });
    }

    /* idle_worker - the idle worker used last (its pages are the warmest) or, with
     * coldest, the one used longest ago; workers.end() when none is idle */
    std::vector<Process>::iterator idle_worker(bool coldest)
    {
        auto pick = workers.end();
        for (auto w = workers.begin(); w != workers.end(); ++w)
            if (w->result < 0 &&
                (pick == workers.end() || (coldest ? w->used < pick->used : w->used >= pick->used)))
                pick = w;
        return pick;
    }

    /* in_child - what a new worker must not keep of the helper: above all the result pipes
     * of other messages, whose readers wait for every write end to close */
    void in_child()
    {
        sigprocmask(SIG_UNBLOCK, &chld, nullptr);
        close(requests);
        close(sigfd);
        for (const Process &w : workers) {
            close(w.sock);
            if (w.result >= 0) close(w.result);
        }
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
            worker_loop(sv[1], buf);
        }
        close(sv[1]);
        if (pid < 0) {
            close(sv[0]);
            return false;
        }
        workers.push_back({pid, sv[0]});
        return true;
    }

    /* retire - a worker is let go: it ends when it reads the closed socket */
    void retire(size_t i)
    {
        close(workers[i].sock);
        if (workers[i].result >= 0) close(workers[i].result);
        workers.erase(workers.begin() + (long)i);
    }

    /* dispatch - the job to the warmest idle worker, or to a new one; its pid, or -1 */
    pid_t dispatch(ssize_t n, int fd[2], int timeout)
    {
        for (size_t tries = 0; tries <= workers.size(); tries++) {
            auto w = idle_worker(false);
            if (w == workers.end()) {
                if (!start_worker()) return -1;
                w = workers.end() - 1;
            }
            if (send_job(w->sock, buf.data(), (size_t)n, fd)) {
                w->result = fd[1];
                w->deadline = time(nullptr) + timeout;
                w->termed = false;
                return w->pid;
            }
            kill(w->pid, SIGKILL); /* a worker that cannot take it is of no use */
            retire((size_t)(w - workers.begin()));
        }
        return -1;
    }

    /* answered - what a busy worker said on its socket: "D" its job is done, the result
     * pipe the reader's alone now; "E" the same, and it ends (MAX_USE).  Its end closed,
     * it died: the reaping tells the reader. */
    void answered(pid_t pid)
    {
        auto w = std::find_if(workers.begin(), workers.end(),
                              [pid](const Process &p) { return p.pid == pid; });
        if (w == workers.end() || w->result < 0) return;
        char c;
        ssize_t n = recv(w->sock, &c, 1, MSG_DONTWAIT);
        if (n < 0) return;
        if (n == 0) {
            w->hung_up = true;
            return;
        }
        if (c != 'D') {
            retire((size_t)(w - workers.begin()));
            return;
        }
        close(w->result);
        w->result = -1;
        w->used = ++jobs_done;
        if (idle() > IDLE_MAX) retire((size_t)(idle_worker(true) - workers.begin()));
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
            if (w->result >= 0) {
                char line[64];
                int n = snprintf(line, sizeof(line), "W %d %d\n", status, w->termed);
                write_all(w->result, line, (size_t)n);
            }
            retire((size_t)(w - workers.begin()));
        }
    }
};

[[noreturn]] void helper_loop(int sock, int timeout)
{
    warm_up();
    Helper h;
    h.requests = sock;
    sigemptyset(&h.chld);
    sigaddset(&h.chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &h.chld, nullptr);
    h.sigfd = signalfd(-1, &h.chld, SFD_CLOEXEC | SFD_NONBLOCK);
    signal(SIGTERM, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);
    bool open = true;
    std::vector<pollfd> fds;
    while (open || h.idle() < h.workers.size()) {
        /* spares are made while nothing waits for the helper */
        while (open && h.idle() < SPARES && h.start_worker()) {
        }
        time_t now = time(nullptr);
        for (Process &w : h.workers) {
            if (w.result >= 0 && now >= w.deadline + (w.termed ? KILL_GRACE : 0)) {
                kill(w.pid, w.termed ? SIGKILL : SIGTERM);
                if (!w.termed) w.termed = true, w.deadline = now;
            }
        }
        fds.assign({{open ? sock : -1, POLLIN, 0}, {h.sigfd, POLLIN, 0}});
        std::vector<pid_t> busy;
        for (const Process &w : h.workers) {
            if (w.result < 0 || w.hung_up) continue;
            fds.push_back({w.sock, POLLIN, 0});
            busy.push_back(w.pid);
        }
        if (poll(fds.data(), fds.size(), 1000) < 0 && errno != EINTR) _exit(1);
        for (size_t i = 0; i < busy.size(); i++)
            if (fds[2 + i].revents) h.answered(busy[i]);
        if (fds[1].revents) h.reap();
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        int fd[2];
        ssize_t n = receive_job(sock, h.buf, fd);
        if (n == 0) {
            /* the milter is gone: its workers' results have no reader */
            open = false;
            for (size_t i = h.workers.size(); i-- > 0;) {
                if (h.workers[i].result >= 0)
                    kill(h.workers[i].pid, SIGTERM);
                else
                    h.retire(i);
            }
            continue;
        }
        if (n < 0) continue;
        /* a job names at least its queue id, context and sender */
        bool whole = std::count(h.buf.begin(), h.buf.begin() + n, '\0') >= 3;
        pid_t pid = whole ? h.dispatch(n, fd, timeout) : -1;
        close(fd[0]);
        if (pid < 0) {
            static const char NONE[] = "W -1 0\n";
            write_all(fd[1], NONE, sizeof(NONE) - 1);
            close(fd[1]);
        }
    }
    _exit(0);
}

} // namespace

void Worker::start(int timeout)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0)
        throw WorkerGone(std::string("cannot make the helper's socket: ") + strerror(errno));
    pid_t pid = fork();
    if (pid < 0) throw WorkerGone(std::string("cannot start the helper: ") + strerror(errno));
    if (pid == 0) {
        close(sv[0]);
        helper_loop(sv[1], timeout);
    }
    close(sv[1]);
    requests = sv[0];
    helper = pid;
}

pid_t Worker::helper_pid()
{
    return helper;
}

Outcome Worker::run(const Job &job)
{
    std::string words = job.queue_id + '\0' + job.context + '\0' + job.from + '\0';
    for (const auto &r : job.to)
        words += r + '\0';
    words += '\0';
    for (const auto &e : job.env)
        words += e + '\0';
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0)
        throw WorkerGone(std::string("cannot make a pipe: ") + strerror(errno));
    int fds[2] = {job.message_fd, pipefd[1]};
    bool sent = send_job(requests, words.data(), words.size(), fds);
    close(pipefd[1]);
    if (!sent) {
        close(pipefd[0]);
        throw WorkerGone(std::string("the helper does not take work: ") + strerror(errno));
    }
    /* records until the engine's own status (X) or, should the worker not get that far, the
     * helper's (W, after reaping it); end of file with neither: the helper is gone */
    std::string got;
    Outcome out;
    bool done = false;
    size_t at = 0;
    char buf[8192];
    while (!done) {
        ssize_t n = read(pipefd[0], buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got.append(buf, (size_t)n);
        for (size_t eol; !done && (eol = got.find('\n', at)) != std::string::npos;) {
            std::string line = got.substr(at, eol - at);
            if (line[0] == 'S') {
                size_t len = strtoul(line.c_str() + 2, nullptr, 10);
                if (got.size() < eol + 1 + len) break; /* the header's bytes are still coming */
                out.signature = got.substr(eol + 1, len);
                at = eol + 1 + len;
                continue;
            }
            at = eol + 1;
            if (line[0] == 'C') {
                out.removed.push_back(atoi(line.c_str() + 2));
            } else if (line[0] == 'X') {
                int status = atoi(line.c_str() + 2);
                out.wait_status = (status & 0xff) << 8; /* as waitpid() reports an exit */
                done = true;
            } else if (line[0] == 'W') {
                int timed = 0;
                sscanf(line.c_str() + 2, "%d %d", &out.wait_status, &timed);
                out.timed_out = timed != 0;
                done = true;
            }
        }
    }
    close(pipefd[0]);
    if (!done) throw WorkerGone("the helper ended before the handler's result came back");
    return out;
}

} // namespace keyseal_milter
