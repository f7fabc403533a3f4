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
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
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
    SPARES = 4,       /* idle workers kept ready */
    IDLE_MAX = 16,    /* more idle than this after a burst, and they leave */
    MAX_USE = 100,    /* messages a worker serves before it ends */
    IDLE_WAIT_S = 30, /* an idle worker looks whether it is wanted this often */
    TICK_MS = 1000,   /* the helper looks at its busy workers' deadlines at least this often */
};

int64_t now_ns()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000000000 + t.tv_nsec;
}

size_t idle(const PoolShared &shared)
{
    size_t n = 0;
    for (uint32_t i = 0, used = shared.used.load(); i < used; i++)
        n += shared.slots[i].state.load(std::memory_order_relaxed) == SLOT_IDLE;
    return n;
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

struct Process {
    pid_t pid;
    uint32_t slot;
    bool termed = false; /* SIGTERM sent, its own timer having failed to end it */
    bool killed = false; /* SIGKILL sent */
};

struct Pool {
    void (*worker_start)() = nullptr; /* what a new worker calls first */
    int requests, sigfd, poke;
    sigset_t chld;
    PoolShared *shared;
    std::vector<Process> workers;
    pid_t self = getpid();

    /* start_worker - a new idle worker in a free slot; false if none could be made */
    bool start_worker()
    {
        uint32_t i = 0;
        while (i < POOL_SLOTS && shared->slots[i].state.load() != SLOT_FREE)
            i++;
        if (i == POOL_SLOTS) return false;
        PoolSlot &slot = shared->slots[i];
        slot.state.store(SLOT_IDLE);
        shared->live++;
        if (shared->used.load() <= i) shared->used.store(i + 1);
        pid_t pid = fork();
        if (pid == 0) {
            /* a new worker keeps nothing of the helper's but the requests, the poke and
             * the shared memory */
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != self) _exit(0); /* the helper died before that took hold */
            sigprocmask(SIG_UNBLOCK, &chld, nullptr);
            close(sigfd);
            call_me_worker();
            if (worker_start != nullptr) worker_start(); /* the parsed-key cache */
            worker_main(requests, *shared, slot, poke, MAX_USE);
        }
        if (pid < 0) {
            halyx_log(LOG_ERR, "cannot start a worker: %s", strerror(errno));
            shared->live--;
            slot.state.store(SLOT_FREE);
            return false;
        }
        workers.push_back({pid, i});
        return true;
    }

    /* tell - the milter is told why a job ended without its Result; should its end of
     * the socket be full, it finds the done pipe's end alone */
    void tell(const PoolSlot &slot, const std::string &why)
    {
        Word word{Answer::FAILED, slot.seq.load(), retryable(why)};
        std::string out = encode(word);
        send(requests, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
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
            if (w == workers.end()) continue;
            PoolSlot &slot = shared->slots[w->slot];
            uint32_t state = slot.state.load();
            if (state == SLOT_BUSY)
                tell(slot, now_ns() >= slot.deadline_ns.load()
                               ? "the handler ran past the time limit of " +
                                     std::to_string(slot.timeout.load()) + " s and was killed"
                               : "the handler ended (" + ended_how(status) + ")");
            /* a worker killed between counting itself off and saying so (pool_leave) is
             * counted off once more here: never below none, or no worker would be forked */
            for (uint32_t live = shared->live.load();
                 state != SLOT_LEAVING && live > 0 &&
                 !shared->live.compare_exchange_weak(live, live - 1);) {
            }
            slot.state.store(SLOT_FREE);
            workers.erase(w);
        }
    }

    /* enforce - a busy worker past its deadline: SIGTERM, should its own timer not have
     * ended it, and SIGKILL KILL_GRACE later; the milliseconds until the next such moment,
     * at most TICK_MS */
    int enforce()
    {
        int64_t now = now_ns(), next = now + (int64_t)TICK_MS * 1000000;
        for (Process &w : workers) {
            const PoolSlot &slot = shared->slots[w.slot];
            if (slot.state.load() != SLOT_BUSY) {
                w.termed = false;
                continue;
            }
            /* a second SIGTERM would cut short the removal of the spool file: the worker's
             * own timer has a second to do it */
            int64_t term_at = slot.deadline_ns.load() + 1000000000;
            int64_t kill_at = term_at - 1000000000 + (int64_t)KILL_GRACE * 1000000000;
            if (now >= kill_at && !w.killed)
                kill(w.pid, SIGKILL), w.killed = true;
            else if (now >= term_at && !w.termed)
                kill(w.pid, SIGTERM), w.termed = true;
            if (!w.killed) next = std::min(next, std::max(w.termed ? kill_at : term_at, now));
        }
        return (int)((next - now) / 1000000) + 1;
    }
};

} // namespace

bool pool_short(const PoolShared &shared)
{
    return idle(shared) < SPARES && shared.live.load() < shared.cap.load();
}

bool pool_leave(PoolShared &shared, PoolSlot &slot, bool must)
{
    if (must) {
        shared.live--;
    } else {
        uint32_t live = shared.live.load();
        do
            if (live <= shared.cap.load() && idle(shared) <= IDLE_MAX) return false;
        while (!shared.live.compare_exchange_weak(live, live - 1));
    }
    slot.state.store(SLOT_LEAVING);
    return true;
}

void pool_main(int requests, void (*worker_start)())
{
    prctl(PR_SET_NAME, MILTER_IDENT); /* not "exe", after the /proc/self/exe it was run as */
    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, 0, MILTER_IDENT);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN); /* the milter reloads; its helper follows the milter */
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    /* the program's start blocked the milter's signals (main.cc): none is blocked here */
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    warm_up();
    Pool p;
    p.requests = requests;
    p.worker_start = worker_start;
    sigemptyset(&p.chld);
    sigaddset(&p.chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &p.chld, nullptr);
    p.sigfd = signalfd(-1, &p.chld, SFD_CLOEXEC | SFD_NONBLOCK);
    p.poke = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    void *memory = mmap(nullptr, sizeof(PoolShared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    timeval idle_wait{IDLE_WAIT_S, 0};
    std::string ready = encode(Word{});
    if (p.sigfd < 0 || p.poke < 0 || memory == MAP_FAILED ||
        setsockopt(requests, SOL_SOCKET, SO_RCVTIMEO, &idle_wait, sizeof(idle_wait)) != 0 ||
        send(requests, ready.data(), ready.size(), MSG_NOSIGNAL) < 0)
        _exit(1);
    p.shared = new (memory) PoolShared{};
    p.shared->cap.store(1);
    bool open = true;
    for (;;) {
        PoolShared &s = *p.shared;
        /* spares while the milter sends; once it is done, one worker to drain the socket */
        while (open ? idle(s) < SPARES && s.live.load() < s.cap.load() &&
                          p.workers.size() < s.cap.load() /* the leaving, till reaped */
                    : s.live.load() == 0 && !s.drained.load()) {
            if (!p.start_worker()) {
                if (!open) _exit(1);
                break;
            }
        }
        if (!open && p.workers.empty()) break;
        pollfd fds[3] = {
            {open ? requests : -1, POLLRDHUP, 0}, {p.sigfd, POLLIN, 0}, {p.poke, POLLIN, 0}};
        if (poll(fds, 3, p.enforce()) < 0 && errno != EINTR) _exit(1);
        uint64_t pokes;
        if (fds[2].revents && read(p.poke, &pokes, sizeof(pokes)) < 0) {
        }
        if (fds[1].revents) p.reap();
        /* the milter shut its end: its workers drain the socket and leave */
        if (fds[0].revents & (POLLRDHUP | POLLHUP | POLLERR)) open = false;
    }
    _exit(0);
}

} // namespace keyseal_milter
