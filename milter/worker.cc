#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "mailhandler/mh_handler.h"
#include "milter/channel.h"
#include "milter/key_cache.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <cerrno>
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

/* Collect - the engine's observer: what the milter must apply, and why a run failed */
struct Collect {
    Result result;
    int failure = 0;
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

Result serve(const Job &job, int message_fd)
{
    /* the handler's process as the chain would start it: its arguments, and an
     * environment of the policy variables and the trace id alone */
    std::vector<std::string> env = job.env;
    env.push_back(std::string(HALYX_LOG_TRACE_ENV "=") + job.queue_id);
    clearenv();
    ERR_clear_error();
    for (std::string &e : env)
        putenv(e.data());
    std::string context = job.context, from = job.from;
    std::vector<std::string> to = job.to;
    std::vector<char *> argv{(char *)"keyseal", context.data(), from.data()};
    for (std::string &r : to)
        argv.push_back(r.data());
    argv.push_back(nullptr);

    Collect c;
    mh_handler_context ctx;
    FILE *in = nullptr;
    int status = DK_ENGINE_FAILED;
    if (mh_handler_prepare(&ctx, (int)argv.size() - 1, argv.data()) != 0) {
        halyx_log(LOG_ERR, DK_LOG_INIT_FAILED);
        c.failure = DK_FAIL_SPOOL, c.result.reason = DK_LOG_INIT_FAILED;
    } else if (lseek(message_fd, 0, SEEK_SET) != 0 || (in = fdopen(message_fd, "r")) == nullptr) {
        c.failure = DK_FAIL_SPOOL,
        c.result.reason = std::string("cannot read the message: ") + strerror(errno);
    } else {
        std::vector<const char *> selectors = names(job.selectors), headers = names(job.headers),
                                  oversign = names(job.oversign);
        dk_engine_job ej = {};
        ej.selectors = job.selectors.empty() ? nullptr : selectors.data();
        ej.by_key_type = 1;
        ej.sign_headers = job.headers.empty() ? nullptr : headers.data();
        ej.oversign = oversign.data();
        ej.from_domain = job.domain.c_str();
        ej.context = ctx.context;
        ej.in = in;
        ej.observe = collect;
        ej.data = &c;
        status = dk_engine_run(&ej);
    }
    if (in != nullptr)
        fclose(in);
    else
        close(message_fd);
    clearenv(); /* before the strings it points into go */

    Result &r = c.result;
    if (status == DK_ENGINE_SIGNED && !r.signatures.empty()) {
        r.verdict = Verdict::SIGNED;
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
    key_cache_keep();
    static char buf[REQUEST_BYTES_MAX];
    for (int served = 0; served < max_use; served++) {
        int fd[REQUEST_FDS_MAX] = {-1, -1, -1}, count = 0;
        ssize_t n = receive_fds(sock, buf, sizeof(buf), fd, REQUEST_JOB, REQUEST_FDS_MAX, &count);
        if (n < 0) _exit(0);
        Request request;
        Job job;
        Result result;
        bool whole =
            decode(std::string_view(buf, (size_t)n), request) && request_fds(request) == count;
        if (whole && !request.job_inline) whole = read_file(fd[REQUEST_JOB], request.job) == 0;
        if (!whole || !decode(request.job, job)) {
            result.reason = "the job could not be read";
            close(fd[REQUEST_MESSAGE]);
        } else {
            result = serve(job, fd[REQUEST_MESSAGE]);
        }
        /* a milter that stopped waiting reads nothing: that is no reason to end */
        std::string out = frame(encode(result));
        write_all(fd[REQUEST_DONE], out.data(), out.size());
        close(fd[REQUEST_DONE]);
        if (fd[REQUEST_JOB] >= 0) close(fd[REQUEST_JOB]);
        std::string answer = encode(served + 1 < max_use ? Answer::DONE : Answer::LAST);
        if (send(sock, answer.data(), answer.size(), MSG_NOSIGNAL) != 1) _exit(0);
    }
    /* nothing is buffered and no spool file is left: no exit handler has work to do, and
     * OpenSSL's teardown would cost more than the rest */
    _exit(0);
}

} // namespace keyseal_milter
