/*
 * keyseal-milter - signs a mail server's outgoing mail through the milter protocol with
 * the keyseal handler's own code.
 *
 * Per message it hands the message, spooled to a file, to the handler's signing engine
 * in a worker of its helper process (milter/helper.h, milter/pool.h) with the handler's
 * arguments and environment taken from the session: PPP_INSIDE_SENDMAIL=1 for mail
 * submitted on the server itself (Postfix's cleanup presents it with {daemon_name} set
 * to the local mark), SMTP_AUTHORIZED from {auth_authen}, TCPREMOTEIP from the SMTP
 * client's address.  The handler decides; the milter only applies the verdict: on PASS
 * it deletes the DKIM-Signature headers the handler removed, where the mail server holds
 * exactly what the handler cut, and inserts the new ones first; otherwise the message
 * passes unchanged, or with strict set a failure that a retry may cure is a temporary
 * failure.  The body is never changed.
 *
 * Threads and signals: the main thread owns the signals (SIGHUP reloads the settings,
 * SIGTERM and SIGINT stop after the messages in flight) and the helper (replaced when it
 * dies); libmilter runs on a thread of its own with those signals blocked, and serves
 * each connection on a thread.  Exit status: 0 stopped, 1 a failure to start or to
 * recover, 2 usage or configuration error.
 */
#include "milter/align.h"
#include "milter/helper.h"
#include "milter/milter_conf.h"
#include "milter/milter_log.h"
#include "milter/pool.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "mailhandler/mh_handler.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <libmilter/mfapi.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using namespace keyseal_milter;

namespace
{

/* The settings in force; a reload swaps them, and a message keeps the ones it began with */
std::mutex config_mutex;
std::shared_ptr<const Config> current_config;
std::string config_path = MILTER_CONF_PATH;

std::shared_ptr<const Config> settings()
{
    std::lock_guard<std::mutex> lock(config_mutex);
    return current_config;
}

std::shared_ptr<const Config> load_settings()
{
    return std::make_shared<const Config>(load(config_path));
}

Helper helper;
std::atomic<int> in_flight{0};     /* messages between MAIL FROM and their end */
std::atomic<bool> stopping{false}; /* no new connection is taken: the milter drains */

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
    std::shared_ptr<const Config> config; /* the settings it began with */
    bool in_message = false;
    std::string sender, domain, auth, queue_id;
    bool not_host = false; /* the sender's domain is no host name: not for the handler */
    std::vector<std::string> rcpts;
    std::vector<std::string> signatures; /* the DKIM-Signature headers as spooled, in order */
    std::vector<std::string> from;       /* the From: addresses' domains ("": none) */
    int fd = -1;                         /* the message file */
    bool in_memory = false;              /* fd is a memory file, still under IN_MEMORY_MAX */
    size_t size = 0;
    int write_errno = 0; /* not 0: the message could not be kept, for this reason */

    void reset_message()
    {
        if (fd >= 0) close(fd);
        fd = -1;
        in_memory = false;
        size = 0;
        write_errno = 0;
        not_host = false;
        config.reset();
        sender.clear(), domain.clear(), auth.clear(), queue_id.clear(), rcpts.clear();
        signatures.clear(), from.clear();
        if (in_message) in_flight--;
        in_message = false;
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

/* address_text - a socket address as text, "" for a family without one */
std::string address_text(const sockaddr *addr)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (addr != nullptr && addr->sa_family == AF_INET)
        inet_ntop(AF_INET, &((const sockaddr_in *)addr)->sin_addr, text, sizeof(text));
    else if (addr != nullptr && addr->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &((const sockaddr_in6 *)addr)->sin6_addr, text, sizeof(text));
    return text;
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
    s->client = address_text(addr);
    return s->go(SMFIP_NR_CONN);
}

sfsistat on_envfrom(SMFICTX *ctx, char **argv)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    s->reset_message();
    s->in_message = true;
    in_flight++;
    s->config = settings();
    s->sender = address(argv[0]);
    s->auth = macro(ctx, "{auth_authen}");
    s->queue_id = macro(ctx, "i");
    if (s->sender.empty()) return s->go(SMFIP_NR_MAIL);
    /* the domain as the mail server compares it; one that is no host name could name a
     * key path anywhere, and is no domain a key was made for */
    char *domain = dk_domain_canonical(mh_from_domain(s->sender.c_str()));
    s->not_host = domain == nullptr;
    s->domain = domain != nullptr ? domain : "";
    free(domain);
    if (s->not_host) return s->go(SMFIP_NR_MAIL);
    s->fd = memfd_create("keyseal-milter message", MFD_CLOEXEC);
    s->in_memory = s->fd >= 0;
    if (s->fd < 0) s->fd = disk_file();
    if (s->fd < 0) s->write_errno = errno;
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
    /* the mail server numbers a header among those of its name, in any letter case */
    if (strcasecmp(name, "DKIM-Signature") == 0) s->signatures.push_back(line);
    if (strcasecmp(name, "From") == 0)
        for (std::string &d : from_domains(value))
            s->from.push_back(std::move(d));
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

/* not_signed - the message passes unchanged; with strict, and where a retry may cure the
 * fault, a temporary failure instead.  A message that would fail the same way on every
 * try passes even then: holding it would only bounce it days later. */
sfsistat not_signed(SMFICTX *ctx, const Session &s, const std::string &id, const std::string &why,
                    bool retry)
{
    if (!retry) {
        halyx_log(LOG_ERR, MILTER_LOG_PERMANENT, id.c_str(), why.c_str());
        return SMFIS_CONTINUE;
    }
    if (s.config->strict) {
        halyx_log(LOG_ERR, MILTER_LOG_TEMPFAIL, id.c_str(), why.c_str());
        smfi_setreply(ctx, (char *)"451", (char *)"4.7.1",
                      (char *)"DKIM signing failed, try again later");
        return SMFIS_TEMPFAIL;
    }
    halyx_log(LOG_ERR, MILTER_LOG_NOT_SIGNED, id.c_str(), why.c_str());
    return SMFIS_CONTINUE;
}

/* header_value - "DKIM-Signature: value\n\tmore\n" as the milter protocol takes a value:
 * after the name and colon, LF folds kept, no last line end */
std::string header_value(const std::string &header)
{
    std::string value = header.substr(strlen(DK_SIGNATURE_HEADER));
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
}

/* apply - the handler's verdict on the message as the mail server holds it */
sfsistat apply(SMFICTX *ctx, const Session &s, const std::string &id, const Result &r)
{
    /* the highest first: a deletion never moves the place of one still to come */
    std::vector<Cut> cuts = r.cuts;
    std::sort(cuts.begin(), cuts.end(),
              [](const Cut &a, const Cut &b) { return a.place > b.place; });
    for (const Cut &c : cuts) {
        /* only what the server holds there, byte for byte: the handler's view of the header
         * block can differ from the server's (a line longer than the handler reads at once) */
        if (c.place < 1 || c.place > s.signatures.size() || s.signatures[c.place - 1] != c.text) {
            halyx_log(LOG_WARNING, MILTER_LOG_CUT_MISMATCH, id.c_str(), (int)c.place);
            continue;
        }
        if (smfi_chgheader(ctx, (char *)"DKIM-Signature", (int)c.place, nullptr) != MI_SUCCESS)
            return not_signed(ctx, s, id, "the mail server refused to remove an old signature",
                              true);
    }
    /* the last first, each at the top: they stand in the order the engine made them */
    for (auto sig = r.signatures.rbegin(); sig != r.signatures.rend(); ++sig) {
        std::string value = header_value(*sig);
        if (smfi_insheader(ctx, 0, (char *)"DKIM-Signature", value.data()) != MI_SUCCESS)
            return not_signed(ctx, s, id, "the mail server refused the new signature header", true);
    }
    return SMFIS_CONTINUE;
}

/* signing_domain - the envelope sender's domain; with signing_domain header, the single
 * From: address's domain instead where it has a key */
std::string signing_domain(const Session &s)
{
    const Config &c = *s.config;
    if (c.signing_domain != SigningDomain::HEADER || s.from.size() != 1 || s.from[0].empty())
        return s.domain;
    const std::string &d = s.from[0];
    char *path = dk_key_path(d.c_str(), c.selectors_for(d).front().c_str());
    struct stat st;
    bool key = stat(path, &st) == 0;
    free(path);
    return key ? d : s.domain;
}

/* check_alignment - a warning when the signature will not count for the From: domain */
void check_alignment(const Session &s, const std::string &id, const std::string &d)
{
    if (s.from.empty())
        halyx_log(LOG_WARNING, MILTER_LOG_NO_FROM, id.c_str(), d.c_str());
    else if (s.from.size() > 1)
        halyx_log(LOG_WARNING, MILTER_LOG_MANY_FROM, id.c_str(), d.c_str(), (int)s.from.size());
    else if (!aligned(d, s.from[0]))
        halyx_log(LOG_WARNING, MILTER_LOG_MISALIGNED, id.c_str(), d.c_str(),
                  s.from[0].empty() ? "no domain" : s.from[0].c_str());
}

/* job_for - the handler's arguments and environment for the session's message */
Job job_for(const Session &s, const std::string &id)
{
    const Config &c = *s.config;
    Job job;
    job.queue_id = id;
    job.from = s.sender;
    job.domain = signing_domain(s);
    job.context = c.context(job.domain);
    job.to = s.rcpts.empty() ? std::vector<std::string>{""} : s.rcpts;
    if (s.local) job.env.push_back(DK_ENV_SENDMAIL "=" DK_ENV_SENDMAIL_VALUE);
    if (!s.auth.empty()) job.env.push_back(DK_ENV_AUTHORIZED "=" + s.auth);
    if (!s.local && !s.client.empty()) job.env.push_back(DK_ENV_CLIENT "=" + s.client);
    job.selectors = c.selectors_for(job.domain);
    job.headers = c.headers;
    job.oversign = c.oversign;
    return job;
}

sfsistat on_eom(SMFICTX *ctx)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    std::string id = macro(ctx, "i");
    if (id.empty()) id = s->queue_id.empty() ? "NOQUEUE" : s->queue_id;
    sfsistat answer = SMFIS_CONTINUE;
    if (s->sender.empty()) {
        halyx_log(LOG_INFO, MILTER_LOG_NULL_SENDER, id.c_str());
    } else if (s->not_host) {
        halyx_log(LOG_INFO, MILTER_LOG_NOT_HOST, id.c_str(), mh_from_domain(s->sender.c_str()));
    } else if (s->write_errno != 0) {
        answer = not_signed(ctx, *s, id,
                            std::string("cannot spool the message for the handler: ") +
                                strerror(s->write_errno),
                            true);
    } else {
        const Config &c = *s->config;
        Limits limits{(uint32_t)c.timeout, (uint32_t)c.workers};
        Job job = job_for(*s, id);
        Result r = helper.run(job, s->fd, limits);
        if (r.verdict == Verdict::SIGNED && !r.reason.empty())
            halyx_log(LOG_WARNING, MILTER_LOG_PARTIAL, id.c_str(), r.reason.c_str());
        if (r.verdict == Verdict::SIGNED) {
            answer = apply(ctx, *s, id, r);
            if (answer == SMFIS_CONTINUE) check_alignment(*s, id, job.domain);
        } else if (r.verdict == Verdict::FAILED)
            answer = not_signed(ctx, *s, id, r.reason, r.retry);
    }
    s->reset_message();
    return answer;
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

const char USAGE[] =
    "usage: keyseal-milter [-f] [-c FILE] [--check-config] [--help] [--version]\n"
    "  -f, --foreground   stay in the foreground (as the systemd service runs it)\n"
    "  -c, --config FILE  the configuration (default " MILTER_CONF_PATH ")\n"
    "  --check-config     print the effective settings and exit (2 on an error)\n";

/* The main thread's signals arrive as bytes on this pipe */
int signal_pipe[2] = {-1, -1};
constexpr char MILTER_ENDED = 'M';

void on_signal(int sig)
{
    int saved = errno;
    char c = (char)sig;
    if (write(signal_pipe[1], &c, 1) < 0) {
        /* full: a reload or stop is pending already */
    }
    errno = saved;
}

int milter_status = MI_SUCCESS;

void *milter_thread(void *)
{
    milter_status = smfi_main();
    char c = MILTER_ENDED;
    if (write(signal_pipe[1], &c, 1) < 0) {
    }
    return nullptr;
}

/* reload - new settings for the messages to come; a mistake keeps the running ones */
void reload()
{
    try {
        auto fresh = load_settings();
        auto old = settings();
        if (fresh->socket != old->socket) {
            halyx_log(LOG_WARNING,
                      "socket %s: the listening socket changes when keyseal-milter "
                      "restarts; it stays %s",
                      fresh->socket.c_str(), old->socket.c_str());
            auto kept = std::make_shared<Config>(*fresh);
            kept->socket = old->socket;
            fresh = kept;
        }
        std::lock_guard<std::mutex> lock(config_mutex);
        current_config = fresh;
    } catch (const ConfigError &e) {
        halyx_log(LOG_ERR, MILTER_LOG_RELOAD_FAILED, e.what());
        return;
    }
    halyx_log(LOG_INFO, MILTER_LOG_RELOADED, config_path.c_str());
}

/* supervise - the main thread's work until the end: signals, and a helper that dies is
 * replaced (milter/helper.h).  A helper that cannot be started ends the process with
 * status 1, so that the service manager restarts the whole. */
[[noreturn]] void supervise()
{
    using Clock = std::chrono::steady_clock;
    int status = 0;
    Clock::time_point quiet_since;
    Clock::time_point deadline;
    Clock::time_point restart_at;
    bool restarting = false;
    for (;;) {
        auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(restart_at - Clock::now());
        int timeout = restarting ? (int)std::max<long>(wait.count(), 0) : -1;
        if (stopping && (timeout < 0 || timeout > 100)) timeout = 100;
        pollfd fds[2] = {{signal_pipe[0], POLLIN, 0}, {helper.pidfd(), POLLIN, 0}};
        if (poll(fds, 2, timeout) < 0 && errno != EINTR) break;
        char sigs[16];
        ssize_t n = fds[0].revents ? read(signal_pipe[0], sigs, sizeof(sigs)) : 0;
        for (ssize_t i = 0; i < n; i++) {
            if (sigs[i] == SIGHUP && !stopping) {
                reload();
                continue;
            }
            if (sigs[i] == SIGHUP || stopping) continue;
            /* SIGTERM, SIGINT, or libmilter stopped on its own (a failure).  The library
             * is not asked to stop: it would end the sessions of the messages in flight
             * at their next command.  New connections find no socket file, or are closed
             * at accept, while those messages finish. */
            stopping = true;
            if (sigs[i] == MILTER_ENDED && milter_status != MI_SUCCESS) status = 1;
            auto s = settings();
            std::string path = s->socket_file();
            if (!path.empty()) unlink(path.c_str());
            halyx_log(LOG_INFO, MILTER_LOG_STOPPING, in_flight.load());
            deadline = Clock::now() + std::chrono::seconds(s->timeout + POOL_KILL_GRACE + 5);
            quiet_since = Clock::now();
        }
        if (fds[1].revents) {
            restart_at = Clock::now() + std::chrono::milliseconds(helper.ended());
            restarting = true;
        }
        if (restarting && Clock::now() >= restart_at) {
            restarting = false;
            if (helper.restart() != 0) {
                halyx_log(LOG_ERR, MILTER_LOG_HELPER_FAILED, strerror(errno));
                status = 1;
                break;
            }
        }
        /* a message is in flight from its MAIL FROM on, but the command may still wait in
         * the socket: the drain ends after a second with none, or at the deadline */
        auto now = Clock::now();
        if (in_flight.load() > 0) quiet_since = now;
        if (stopping && (now - quiet_since >= std::chrono::seconds(1) || now >= deadline)) break;
    }
    auto s = settings();
    std::string path = s->socket_file();
    if (!path.empty()) unlink(path.c_str());
    if (!s->pid_file.empty()) unlink(s->pid_file.c_str());
    halyx_log(LOG_INFO, MILTER_LOG_STOPPED);
    closelog();
    /* libmilter's threads are still there: nothing may run their destructors under them */
    _exit(status);
}

/* write_pid - the pid file, for keyseal-admin rotate's reload; a failure is logged only */
void write_pid(const std::string &path)
{
    if (path.empty()) return;
    std::string text = std::to_string(getpid()) + "\n";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0 || write_all(fd, text.data(), text.size()) != 0)
        halyx_log(LOG_WARNING, "cannot write the pid file %s: %s", path.c_str(), strerror(errno));
    if (fd >= 0) close(fd);
}

} // namespace

/* accept - the one the milter library calls for a connection: a peer of an inet socket
 * that is not among the clients is refused here, before the library sees it.  Whoever
 * can talk to the socket can have any message signed. */
extern "C" int accept(int fd, sockaddr *addr, socklen_t *len)
{
    sockaddr_storage peer;
    socklen_t peer_len = sizeof(peer);
    int conn = (int)syscall(SYS_accept4, fd, (sockaddr *)&peer, &peer_len, 0);
    if (conn < 0) return -1;
    if (stopping) {
        close(conn);
        errno = EINTR;
        return -1;
    }
    if (peer.ss_family == AF_INET || peer.ss_family == AF_INET6) {
        std::string ip = address_text((const sockaddr *)&peer);
        auto c = settings();
        if (c && !c->client_allowed(ip)) {
            halyx_log(LOG_WARNING, MILTER_LOG_REFUSED, ip.c_str());
            close(conn);
            errno = EINTR; /* the library's listener goes on to the next connection */
            return -1;
        }
    }
    if (addr != nullptr && len != nullptr) {
        memcpy(addr, &peer, std::min<socklen_t>(*len, peer_len));
        *len = peer_len;
    }
    return conn;
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], POOL_ARGUMENT) == 0) pool_main(POOL_REQUESTS_FD);
    /* a closed standard descriptor must not become the listening socket's number, which a
     * child would then keep */
    if (mh_std_fds_open() != 0) return 1;
    static const option options[] = {
        {"foreground", no_argument, nullptr, 'f'},   {"config", required_argument, nullptr, 'c'},
        {"check-config", no_argument, nullptr, 'k'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0}};
    bool foreground = false, check_only = false;
    for (int c; (c = getopt_long(argc, argv, "fc:", options, nullptr)) != -1;) {
        switch (c) {
        case 'f':
            foreground = true;
            break;
        case 'c':
            config_path = optarg;
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
        current_config = load_settings();
    } catch (const ConfigError &e) {
        fprintf(stderr, "keyseal-milter: %s\n", e.what());
        return 2;
    }
    const Config &config = *current_config;
    if (check_only) {
        fputs(config.settings().c_str(), stdout);
        return 0;
    }

    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, 0, MILTER_IDENT);
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
    if (smfi_setconn((char *)config.socket.c_str()) != MI_SUCCESS ||
        smfi_register(desc) != MI_SUCCESS || smfi_opensocket(1) != MI_SUCCESS) {
        fprintf(stderr, "keyseal-milter: cannot listen on %s: %s\n", config.socket.c_str(),
                strerror(errno));
        return 1;
    }
    if (!foreground && daemon(0, 0) != 0) {
        fprintf(stderr, "keyseal-milter: cannot become a daemon: %s\n", strerror(errno));
        return 1;
    }
    write_pid(config.pid_file);

    if (pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGHUP, SIGTERM, SIGINT})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    fflush(nullptr);
    if (helper.start() != 0) {
        halyx_log(LOG_ERR, "cannot start the signing helper: %s", strerror(errno));
        return 1;
    }
    /* libmilter and the threads it makes keep these signals blocked: a process-directed
     * signal then goes to the main thread, which alone has them open */
    sigset_t owned, previous;
    sigemptyset(&owned);
    for (int sig : {SIGHUP, SIGTERM, SIGINT})
        sigaddset(&owned, sig);
    pthread_sigmask(SIG_BLOCK, &owned, &previous);
    pthread_t thread;
    int started = pthread_create(&thread, nullptr, milter_thread, nullptr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (started != 0) {
        halyx_log(LOG_ERR, "cannot start the milter thread: %s", strerror(started));
        return 1;
    }
    halyx_log(LOG_INFO, "listening on %s (selector %s, %s, time limit %d s, workers %d)",
              config.socket.c_str(), config.selector.front().c_str(),
              config.strict ? "strict" : "fail open", config.timeout, config.workers);
    supervise();
}
