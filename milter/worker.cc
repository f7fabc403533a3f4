#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_policy.h"
#include "milter/channel.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/err.h>
#include <sys/socket.h>
#include <syslog.h>
#include <ctime>
#include <unistd.h>

extern char *program_invocation_short_name;

namespace keyseal_milter
{

namespace
{

const char HANDLER_IDENT[] = "keyseal"; /* keyseal-admin report counts the handler's lines */

/* Collect - the engine's observer: what the milter must apply, and why a run failed */
struct Collect {
    Result result;
    int failure = 0;
    std::string unsigned_by; /* the first selector that gave no signature, and why */
};

void collect(void *data, int event, int number, const char *text)
{
    auto *c = static_cast<Collect *>(data);
    if (event == DK_EVENT_CUT)
        c->result.cuts.push_back({(uint32_t)number, text});
    else if (event == DK_EVENT_SIGNED)
        c->result.signatures.push_back(text);
    else if (event == DK_EVENT_FAILED && c->failure == 0)
        c->failure = number, c->result.reason = text;
    else if (event == DK_EVENT_UNSIGNED && c->unsigned_by.empty())
        c->unsigned_by = text;
}

/* names - the strings as a NULL-ended list of C strings, valid while v lives */
std::vector<const char *> names(const std::vector<std::string> &v)
{
    std::vector<const char *> out;
    for (const auto &s : v)
        out.push_back(s.c_str());
    out.push_back(nullptr);
    return out;
}

} // namespace

Result serve(const Job &job, int message_fd, bool own_log)
{
    if (own_log) {
        /* the handler's start-up, once: its syslog ident and level (never raised from the
         * environment, which the chain's handler would not have been given) */
        static bool started = false;
        if (!started) halyx_log_init(nullptr, LOG_INFO, LOG_MAIL, HALYX_LOG_TRACE, HANDLER_IDENT);
        started = true;
        halyx_log_set_trace(job.queue_id.c_str());
    }
    ERR_clear_error();

    Collect c;
    FILE *in = nullptr;
    int status = DK_ENGINE_FAILED;
    if (lseek(message_fd, 0, SEEK_SET) != 0 || (in = fdopen(message_fd, "r")) == nullptr) {
        c.failure = DK_FAIL_SPOOL,
        c.result.reason = std::string("cannot read the message: ") + strerror(errno);
    } else {
        std::vector<const char *> selectors = names(job.selectors), headers = names(job.headers),
                                  oversign = names(job.oversign);
        dk_policy_inputs policy = {job.local ? DK_ENV_SENDMAIL_VALUE : nullptr,
                                   job.auth.empty() ? nullptr : job.auth.c_str(),
                                   job.client.empty() ? nullptr : job.client.c_str()};
        /* the helper's time limit; SIGHUP, sent to the whole service, stays ignored */
        static const int time_limit[] = {SIGTERM, 0};
        dk_engine_job ej = {};
        ej.selectors = job.selectors.empty() ? nullptr : selectors.data();
        ej.by_key_type = 1;
        ej.sign_headers = job.headers.empty() ? nullptr : headers.data();
        ej.oversign = oversign.data();
        ej.from_domain = job.domain.c_str();
        ej.context = job.context.c_str();
        ej.in = in;
        ej.observe = collect;
        ej.data = &c;
        ej.policy = &policy;
        ej.guard_signals = time_limit;
        ej.in_place = 1; /* the message file is read once: no spool file */
        status = dk_engine_run(&ej);
    }
    if (in != nullptr)
        fclose(in);
    else
        close(message_fd);

    Result &r = c.result;
    if (status == DK_ENGINE_SIGNED && !r.signatures.empty()) {
        r.verdict = Verdict::SIGNED;
        if (!c.unsigned_by.empty()) r.reason = c.unsigned_by;
    } else if (status == DK_ENGINE_SKIPPED) {
        r.verdict = Verdict::SKIPPED;
    } else {
        r.verdict = Verdict::FAILED;
        r.retry = c.failure == 0 || dk_engine_retry_helps(c.failure);
        if (r.reason.empty()) r.reason = "the handler failed (exit " + std::to_string(status) + ")";
        r.cuts.clear(), r.signatures.clear();
    }
    return r;
}

void worker_main(int requests, PoolShared &shared, PoolSlot &slot, int poke, int max_use)
{
    /* the handler's lines, under the handler's name: keyseal-admin report counts them */
    program_invocation_short_name = (char *)"keyseal";
    /* the time limit, kept here: SIGTERM at the job's deadline, as the helper would send it
     * (it signs in place: nothing to remove); the helper's SIGKILL follows should that not end it
     */
    sigevent at_deadline{};
    at_deadline.sigev_notify = SIGEV_SIGNAL;
    at_deadline.sigev_signo = SIGTERM;
    timer_t timer;
    bool timed = timer_create(CLOCK_MONOTONIC, &at_deadline, &timer) == 0;
    static char buf[REQUEST_BYTES_MAX];
    for (int served = 0;;) {
        int fd[REQUEST_FDS_MAX] = {-1, -1, -1}, count = 0;
        ssize_t n =
            receive_fds(requests, buf, sizeof(buf), fd, REQUEST_JOB, REQUEST_FDS_MAX, &count);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            /* idle a while: still wanted? */
            if (pool_leave(shared, slot, false)) _exit(0);
            continue;
        }
        if (n < 0 && (errno == EINTR || errno == EBADMSG)) continue;
        if (n < 0) {
            /* the milter's end is shut and nothing is left for us */
            shared.drained.store(1);
            pool_leave(shared, slot, true);
            _exit(0);
        }
        Request request;
        Job job;
        Result result;
        bool whole =
            decode(std::string_view(buf, (size_t)n), request) && request_fds(request) == count;
        int64_t deadline = (int64_t)request.sent_ns + (int64_t)request.limits.timeout * 1000000000;
        if (whole) shared.cap.store(std::min<uint32_t>(request.limits.workers, POOL_SLOTS));
        if (whole && !request.job_inline) whole = read_file(fd[REQUEST_JOB], request.job) == 0;
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (!whole || !decode(request.job, job)) {
            result.reason = "the job could not be read";
        } else if ((int64_t)now.tv_sec * 1000000000 + now.tv_nsec >= deadline) {
            result = no_worker_free(request.limits.timeout, shared.cap.load());
        } else {
            slot.seq.store(request.seq), slot.timeout.store(request.limits.timeout);
            slot.deadline_ns.store(deadline);
            slot.state.store(SLOT_BUSY);
            uint64_t one = 1;
            if (pool_short(shared) && write(poke, &one, sizeof(one)) < 0) {
                /* the helper has been poked already */
            }
            itimerspec on{{0, 0}, {deadline / 1000000000, deadline % 1000000000}}, off{};
            if (timed) timer_settime(timer, TIMER_ABSTIME, &on, nullptr);
            result = serve(job, fd[REQUEST_MESSAGE]);
            fd[REQUEST_MESSAGE] = -1;
            if (timed) timer_settime(timer, 0, &off, nullptr);
        }
        /* a milter that stopped waiting reads nothing: that is no reason to end */
        std::string out = frame(encode(result));
        write_all(fd[REQUEST_DONE], out.data(), out.size());
        for (int f : fd)
            if (f >= 0) close(f);
        slot.state.store(SLOT_IDLE);
        if (pool_leave(shared, slot, ++served >= max_use)) break;
    }
    /* nothing is buffered and no spool file is left: no exit handler has work to do, and
     * OpenSSL's teardown would cost more than the rest */
    _exit(0);
}

} // namespace keyseal_milter
