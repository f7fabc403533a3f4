/*
 * keyseal-milter - signs a mail server's outgoing mail through the milter protocol with
 * the keyseal handler's own code.
 *
 * Per message it hands the message, spooled to a file, to the handler's signing engine
 * in a worker process (milter/worker.h) with the handler's arguments and environment taken
 * from the session: PPP_INSIDE_SENDMAIL=1 for mail submitted on the server itself
 * (Postfix's cleanup presents it with {daemon_name} set to the local mark),
 * SMTP_AUTHORIZED from {auth_authen}, TCPREMOTEIP from the SMTP client's address.  The
 * handler decides; the milter only applies the verdict: on PASS it deletes the
 * DKIM-Signature headers the handler removed and inserts the new one first; otherwise
 * the message passes unchanged, or with strict set a failure is a temporary failure.
 * The body is never changed.  Exit status: 0, 1 on a failure to start, 2 usage or
 * configuration error.
 */
#include "milter/milter_conf.h"
#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "mailhandler/mh_handler.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <libmilter/mfapi.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using namespace keyseal_milter;

namespace
{

Config config;

/* Stages whose answer is always "continue" until the end of the message: the server is
 * told not to wait for it, and stages the milter has no use for are not sent at all.
 * Each answer saved is a round trip between the server's process and a milter thread. */
constexpr unsigned long NO_REPLY =
    SMFIP_NR_CONN | SMFIP_NR_MAIL | SMFIP_NR_RCPT | SMFIP_NR_HDR | SMFIP_NR_EOH | SMFIP_NR_BODY;
constexpr unsigned long NOT_SENT = SMFIP_NOHELO | SMFIP_NOUNKNOWN | SMFIP_NODATA;

struct Session {
    unsigned long no_reply = 0; /* the NO_REPLY stages this server agreed to */
    std::string client;         /* the SMTP client's address, "" when unknown */
    bool local = false;         /* {daemon_name} at connect was the local mark */
    /* the message in progress */
    std::string sender, auth, queue_id;
    std::vector<std::string> rcpts;
    int fd = -1;            /* the message file */
    bool in_memory = false; /* fd is a memory file, still under IN_MEMORY_MAX */
    size_t size = 0;
    int write_errno = 0; /* not 0: the message could not be kept, for this reason */

    void reset_message()
    {
        if (fd >= 0) close(fd);
        fd = -1;
        in_memory = false;
        size = 0;
        write_errno = 0;
        sender.clear(), auth.clear(), queue_id.clear(), rcpts.clear();
    }
    ~Session() { reset_message(); }

    /* go - "continue" for a stage, without an answer where the server agreed to that */
    sfsistat go(unsigned long stage) const
    {
        return no_reply & stage ? SMFIS_NOREPLY : SMFIS_CONTINUE;
    }
};

Session *session(SMFICTX *ctx)
{
    return static_cast<Session *>(smfi_getpriv(ctx));
}

std::string macro(SMFICTX *ctx, const char *name)
{
    const char *v = smfi_getsymval(ctx, (char *)name);
    return v != nullptr ? v : "";
}

/* address - an envelope address without the angle brackets the milter protocol keeps */
std::string address(const char *arg)
{
    std::string a = arg != nullptr ? arg : "";
    return a.size() >= 2 && a.front() == '<' && a.back() == '>' ? a.substr(1, a.size() - 2) : a;
}

/* A message starts in a memory file: most mail is small, and a file system's inode for
 * each message costs more than the signature.  One that outgrows this moves to disk, so
 * that a large message costs no more memory than this. */
constexpr size_t IN_MEMORY_MAX = 64 * 1024;

/* disk_file - a nameless temporary file: nothing is left behind, however we end */
int disk_file()
{
    const char *dir = getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp";
    int fd = open(dir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR)) return fd;
    std::string path = std::string(dir) + "/keyseal-milter.XXXXXX";
    fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0) unlink(path.c_str());
    return fd;
}

/* to_disk - the memory file's bytes into a disk file that takes its place; 0 or an errno */
int to_disk(Session *s)
{
    int disk = disk_file();
    if (disk < 0) return errno;
    char buf[16384];
    int err = 0;
    for (off_t at = 0; err == 0 && at < (off_t)s->size;) {
        ssize_t n = pread(s->fd, buf, sizeof(buf), at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            err = n < 0 ? errno : EIO;
        else if (write_all(disk, buf, (size_t)n) != 0)
            err = errno;
        else
            at += n;
    }
    if (err != 0) {
        close(disk);
        return err;
    }
    close(s->fd);
    s->fd = disk;
    s->in_memory = false;
    return 0;
}

void append(Session *s, const char *data, size_t length)
{
    if (s->write_errno != 0) return;
    if (s->in_memory && s->size + length > IN_MEMORY_MAX) s->write_errno = to_disk(s);
    if (s->write_errno == 0 && write_all(s->fd, data, length) != 0) s->write_errno = errno;
    s->size += length;
}

sfsistat on_negotiate(SMFICTX *ctx, unsigned long f0, unsigned long f1, unsigned long,
                      unsigned long, unsigned long *pf0, unsigned long *pf1, unsigned long *pf2,
                      unsigned long *pf3)
{
    *pf0 = f0 & (SMFIF_ADDHDRS | SMFIF_CHGHDRS);
    /* header values exactly as they stand, leading space included: the handler signs
     * what the receiver will see */
    *pf1 = f1 & (SMFIP_HDR_LEADSPC | SMFIP_SKIP | NOT_SENT);
    *pf2 = *pf3 = 0;
    /* the session is made here, so that it knows which answers the server waits for; without
     * one, every stage answers and a message the milter cannot follow is refused at its end */
    auto *s = new (std::nothrow) Session;
    if (s != nullptr) {
        s->no_reply = f1 & NO_REPLY;
        *pf1 |= s->no_reply;
        smfi_setpriv(ctx, s);
    }
    /* the macros the policy needs, whatever the site set in its *_macros parameters */
    smfi_setsymlist(ctx, SMFIM_CONNECT, (char *)"{daemon_name}");
    smfi_setsymlist(ctx, SMFIM_ENVFROM, (char *)"i {auth_authen}");
    smfi_setsymlist(ctx, SMFIM_EOM, (char *)"i");
    return SMFIS_CONTINUE;
}

sfsistat on_connect(SMFICTX *ctx, char *, _SOCK_ADDR *addr)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    /* {daemon_name} is read here: later stages may carry cleanup's value instead */
    s->local = macro(ctx, "{daemon_name}") == MILTER_LOCAL_MARK;
    /* the address from the connect call: {client_addr} is not among the default macros */
    char text[INET6_ADDRSTRLEN] = "";
    if (addr != nullptr && addr->sa_family == AF_INET)
        inet_ntop(AF_INET, &((sockaddr_in *)addr)->sin_addr, text, sizeof(text));
    else if (addr != nullptr && addr->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &((sockaddr_in6 *)addr)->sin6_addr, text, sizeof(text));
    s->client = text;
    return s->go(SMFIP_NR_CONN);
}

sfsistat on_envfrom(SMFICTX *ctx, char **argv)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    s->reset_message();
    std::string from = address(argv[0]);
    s->sender = from;
    s->auth = macro(ctx, "{auth_authen}");
    s->queue_id = macro(ctx, "i");
    if (!from.empty()) {
        s->fd = memfd_create("keyseal-milter message", MFD_CLOEXEC);
        s->in_memory = s->fd >= 0;
        if (s->fd < 0) s->fd = disk_file();
        if (s->fd < 0) s->write_errno = errno;
    }
    return s->go(SMFIP_NR_MAIL);
}

sfsistat on_envrcpt(SMFICTX *ctx, char **argv)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    s->rcpts.push_back(address(argv[0]));
    return s->go(SMFIP_NR_RCPT);
}

sfsistat on_header(SMFICTX *ctx, char *name, char *value)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    if (s->fd < 0) return s->go(SMFIP_NR_HDR);
    /* folded values come with bare LF line breaks; the message is CR LF throughout */
    std::string line = std::string(name) + ":";
    for (const char *p = value; *p != '\0'; p++) {
        if (*p == '\n' && (p == value || p[-1] != '\r')) line += '\r';
        line += *p;
    }
    line += "\r\n";
    append(s, line.data(), line.size());
    return s->go(SMFIP_NR_HDR);
}

sfsistat on_eoh(SMFICTX *ctx)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    if (s->fd >= 0) append(s, "\r\n", 2);
    return s->go(SMFIP_NR_EOH);
}

sfsistat on_body(SMFICTX *ctx, unsigned char *chunk, size_t length)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    if (s->fd >= 0) append(s, (const char *)chunk, length);
    return s->go(SMFIP_NR_BODY);
}

/* describe - why a handler run gave no signature, for the log */
std::string describe(const Outcome &o)
{
    int st = o.wait_status;
    if (o.timed_out)
        return "the handler ran past the time limit of " + std::to_string(config.timeout) +
               " s and was killed";
    if (st == -1) return "the handler could not be started";
    if (WIFEXITED(st))
        return "the handler failed (exit " + std::to_string(WEXITSTATUS(st)) +
               "; its keyseal lines say why)";
    if (WIFSIGNALED(st)) return std::string("the handler was killed by ") + strsignal(WTERMSIG(st));
    return "the handler ended with status " + std::to_string(st);
}

/* not_signed - fail open (the message passes unchanged) or, with strict, a temporary failure */
sfsistat not_signed(SMFICTX *ctx, const std::string &id, const std::string &why)
{
    if (config.strict) {
        halyx_log(LOG_ERR, "%s: not signed: %s; temporary failure (strict)", id.c_str(),
                  why.c_str());
        smfi_setreply(ctx, (char *)"451", (char *)"4.7.1",
                      (char *)"DKIM signing failed, try again later");
        return SMFIS_TEMPFAIL;
    }
    halyx_log(LOG_ERR, "%s: not signed: %s; the message passes unsigned", id.c_str(), why.c_str());
    return SMFIS_CONTINUE;
}

/* apply - the handler's verdict on the message as Postfix holds it */
sfsistat apply(SMFICTX *ctx, const std::string &id, const Outcome &o)
{
    /* the highest first: a deletion never moves the place of one still to come */
    std::vector<int> removed = o.removed;
    std::sort(removed.rbegin(), removed.rend());
    for (int n : removed)
        if (smfi_chgheader(ctx, (char *)"DKIM-Signature", n, nullptr) != MI_SUCCESS)
            return not_signed(ctx, id, "the mail server refused to remove an old signature");
    /* "DKIM-Signature: value\n\tmore\n": the value after the name, LF folds kept */
    std::string value = o.signature.substr(sizeof("DKIM-Signature:") - 1);
    if (!value.empty() && value.back() == '\n') value.pop_back();
    if (smfi_insheader(ctx, 0, (char *)"DKIM-Signature", value.data()) != MI_SUCCESS)
        return not_signed(ctx, id, "the mail server refused the new signature header");
    return SMFIS_CONTINUE;
}

sfsistat on_eom(SMFICTX *ctx)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    std::string id = macro(ctx, "i");
    if (id.empty()) id = s->queue_id.empty() ? "NOQUEUE" : s->queue_id;
    if (s->sender.empty()) {
        halyx_log(LOG_INFO, "%s: null sender (a bounce): not given to the handler", id.c_str());
        s->reset_message();
        return SMFIS_CONTINUE;
    }
    if (s->write_errno != 0) {
        std::string why =
            std::string("cannot spool the message for the handler: ") + strerror(s->write_errno);
        s->reset_message();
        return not_signed(ctx, id, why);
    }
    Job job;
    job.queue_id = id;
    job.from = s->sender;
    job.context = config.context(mh_from_domain(s->sender.c_str()));
    job.to = s->rcpts.empty() ? std::vector<std::string>{""} : s->rcpts;
    if (s->local) job.env.push_back("PPP_INSIDE_SENDMAIL=1");
    if (!s->auth.empty()) job.env.push_back("SMTP_AUTHORIZED=" + s->auth);
    if (!s->local && !s->client.empty()) job.env.push_back("TCPREMOTEIP=" + s->client);
    job.message_fd = s->fd;
    Outcome o;
    try {
        o = Worker::run(job);
    } catch (const WorkerGone &e) {
        s->reset_message();
        return not_signed(ctx, id, e.what());
    }
    s->reset_message();
    int st = o.wait_status;
    if (WIFEXITED(st) && WEXITSTATUS(st) == DK_ENGINE_SKIPPED && !o.timed_out)
        return SMFIS_CONTINUE;
    if (WIFEXITED(st) && WEXITSTATUS(st) == DK_ENGINE_SIGNED && !o.timed_out &&
        !o.signature.empty())
        return apply(ctx, id, o);
    return not_signed(ctx, id, describe(o));
}

sfsistat on_abort(SMFICTX *ctx)
{
    if (Session *s = session(ctx)) s->reset_message();
    return SMFIS_CONTINUE;
}

sfsistat on_close(SMFICTX *ctx)
{
    delete session(ctx);
    smfi_setpriv(ctx, nullptr);
    return SMFIS_CONTINUE;
}

/* watch_helper - the milter cannot sign without its helper: stop, so the service restarts */
void *watch_helper(void *)
{
    int status;
    while (waitpid(Worker::helper_pid(), &status, 0) < 0 && errno == EINTR) {
    }
    halyx_log(LOG_ERR, "the signing helper (pid %d) ended; stopping so that the service restarts",
              (int)Worker::helper_pid());
    smfi_stop();
    return nullptr;
}

const char USAGE[] =
    "usage: keyseal-milter [-f] [-c FILE] [--check-config] [--help] [--version]\n"
    "  -f, --foreground   stay in the foreground (as the systemd service runs it)\n"
    "  -c, --config FILE  the configuration (default " MILTER_CONF_PATH ")\n"
    "  --check-config     print the effective settings and exit (2 on an error)\n";

} // namespace

int main(int argc, char **argv)
{
    static const option options[] = {
        {"foreground", no_argument, nullptr, 'f'},   {"config", required_argument, nullptr, 'c'},
        {"check-config", no_argument, nullptr, 'k'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0}};
    bool foreground = false, check_only = false;
    std::string path = MILTER_CONF_PATH;
    for (int c; (c = getopt_long(argc, argv, "fc:", options, nullptr)) != -1;) {
        switch (c) {
        case 'f':
            foreground = true;
            break;
        case 'c':
            path = optarg;
            break;
        case 'k':
            check_only = true;
            break;
        case 'h':
            fputs(USAGE, stdout);
            return 0;
        case 'v':
            puts("keyseal-milter " KEYSEAL_VERSION);
            return 0;
        default:
            fputs(USAGE, stderr);
            return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "keyseal-milter: unexpected argument '%s'\n%s", argv[optind], USAGE);
        return 2;
    }
    try {
        /* without the file at the default place, the defaults; a named file must exist */
        if (path != MILTER_CONF_PATH || access(path.c_str(), F_OK) == 0) config = load(path);
    } catch (const ConfigError &e) {
        fprintf(stderr, "keyseal-milter: %s\n", e.what());
        return 2;
    }
    if (check_only) {
        fputs(config.settings().c_str(), stdout);
        return 0;
    }

    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, 0, "keyseal-milter");
    smfiDesc desc = {};
    desc.xxfi_name = (char *)"keyseal";
    desc.xxfi_version = SMFI_VERSION;
    desc.xxfi_flags = SMFIF_ADDHDRS | SMFIF_CHGHDRS;
    desc.xxfi_connect = on_connect;
    desc.xxfi_envfrom = on_envfrom;
    desc.xxfi_envrcpt = on_envrcpt;
    desc.xxfi_header = on_header;
    desc.xxfi_eoh = on_eoh;
    desc.xxfi_body = on_body;
    desc.xxfi_eom = on_eom;
    desc.xxfi_abort = on_abort;
    desc.xxfi_close = on_close;
    desc.xxfi_negotiate = on_negotiate;
    /* the socket's group (postfix, from the setgid directory) must be able to connect */
    umask(007);
    if (smfi_setconn(config.socket.data()) != MI_SUCCESS || smfi_register(desc) != MI_SUCCESS ||
        smfi_opensocket(1) != MI_SUCCESS) {
        fprintf(stderr, "keyseal-milter: cannot listen on %s: %s\n", config.socket.c_str(),
                strerror(errno));
        return 1;
    }
    if (!foreground && daemon(0, 0) != 0) {
        fprintf(stderr, "keyseal-milter: cannot become a daemon: %s\n", strerror(errno));
        return 1;
    }
    /* before libmilter's threads: the helper forks every worker */
    fflush(nullptr);
    try {
        Worker::start(config.timeout);
    } catch (const WorkerGone &e) {
        halyx_log(LOG_ERR, "%s", e.what());
        return 1;
    }
    pthread_t watcher;
    pthread_create(&watcher, nullptr, watch_helper, nullptr);
    halyx_log(LOG_INFO, "listening on %s (selector %s, %s, time limit %d s)", config.socket.c_str(),
              config.selector.c_str(), config.strict ? "strict" : "fail open", config.timeout);
    int rc = smfi_main();
    halyx_log(LOG_INFO, "stopped");
    return rc == MI_SUCCESS ? 0 : 1;
}
