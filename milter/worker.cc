#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_policy.h"
#include "milter/channel.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/err.h>
#include <sys/socket.h>
#include <syslog.h>
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

void worker_main(int sock, int max_use)
{
    /* the handler's lines, under the handler's name: keyseal-admin report counts them */
    program_invocation_short_name = (char *)"keyseal";
    for (int served = 0; served < max_use; served++) {
        int fd[3];
        if (receive_fds(sock, nullptr, 0, fd, 3) < 0) _exit(0);
        std::string encoded;
        Job job;
        Result result;
        if (read_file(fd[0], encoded) != 0 || !decode(encoded, job)) {
            result.reason = "the job could not be read";
            close(fd[1]);
        } else {
            result = serve(job, fd[1]);
        }
        std::string out = encode(result);
        int written = pwrite_all(fd[2], out.data(), out.size(), 0);
        close(fd[0]), close(fd[2]);
        const char *answer = served + 1 < max_use ? "D" : "E";
        if (written != 0 || send(sock, answer, 1, MSG_NOSIGNAL) != 1) _exit(0);
    }
    /* nothing is buffered and no spool file is left: no exit handler has work to do, and
     * OpenSSL's teardown would cost more than the rest */
    _exit(0);
}

} // namespace keyseal_milter
