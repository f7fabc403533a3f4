#include "mailhandler/mail_me.h"

#include "util/halyx_log.h"

#include <syslog.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

enum {
    COPY_CHUNK = 8192,
    GUARD_SLOTS = 2, /* the spool file, and its successor while replaced */
    GUARD_MAX = 8,   /* signals a guard takes */
};

/*
 * The spool files of this process, readable from a signal handler: a slot's path
 * is complete before the slot is marked used.  The guard's signals are blocked
 * while a file is created or unlinked together with its slot, so that no signal
 * falls between the two.
 */
static char guard_path[GUARD_SLOTS][sizeof(MAIL_SPOOL_DIR "/" MAIL_SPOOL_STEM "XXXXXX")];
static volatile sig_atomic_t guard_used[GUARD_SLOTS];
/* the handler's: the chain's time limit may come as any of them */
static const int HANDLER_SIGNALS[] = {SIGTERM, SIGHUP, SIGALRM, 0};
static int guard_signals[GUARD_MAX + 1]; /* 0-ended; empty until a guard is installed */

static void guard_block(sigset_t *saved)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int *sig = guard_signals; *sig != 0; sig++)
        sigaddset(&set, *sig);
    sigprocmask(SIG_BLOCK, &set, saved);
}

static void guard_remove_all(void)
{
    for (int i = 0; i < GUARD_SLOTS; i++)
        if (guard_used[i]) unlink(guard_path[i]);
}

/* on_timeout_signal - remove the spool files, then die of sig as if nothing had caught it */
static void on_timeout_signal(int sig)
{
    guard_remove_all();
    /* SA_RESETHAND restored the default action and SA_NODEFER left sig unblocked */
    raise(sig);
}

void mail_spool_guard(const int *signals)
{
    static bool installed = false;
    if (installed) return;
    installed = true;
    if (signals == nullptr) signals = HANDLER_SIGNALS;
    for (int i = 0; i < GUARD_MAX && signals[i] != 0; i++)
        guard_signals[i] = signals[i];
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_timeout_signal;
    sa.sa_flags = SA_RESETHAND | SA_NODEFER;
    for (const int *sig = guard_signals; *sig != 0; sig++) {
        /* the others wait while one is handled; sig itself must stay deliverable */
        sigemptyset(&sa.sa_mask);
        for (const int *other = guard_signals; *other != 0; other++)
            if (*other != *sig) sigaddset(&sa.sa_mask, *other);
        sigaction(*sig, &sa, nullptr);
    }
    atexit(guard_remove_all);
}

/* spool_file - make a new spool file; returns the stream or NULL with *fd set (-1 if
 * mkstemp failed) so that the caller can tell which step failed */
static FILE *spool_file(char *path, int *fd)
{
    sigset_t saved;
    guard_block(&saved);
    *fd = mkstemp(path);
    int err = errno;
    for (int i = 0; *fd >= 0 && i < GUARD_SLOTS; i++) {
        if (!guard_used[i] && strlen(path) < sizeof(guard_path[i])) {
            strcpy(guard_path[i], path);
            guard_used[i] = 1;
            break;
        }
    }
    sigprocmask(SIG_SETMASK, &saved, nullptr);
    errno = err;
    return *fd < 0 ? nullptr : fdopen(*fd, "w");
}

/* spool_unlink - remove a spool file and its slot together */
static void spool_unlink(const char *path)
{
    sigset_t saved;
    guard_block(&saved);
    unlink(path);
    for (int i = 0; i < GUARD_SLOTS; i++)
        if (guard_used[i] && strcmp(guard_path[i], path) == 0) guard_used[i] = 0;
    sigprocmask(SIG_SETMASK, &saved, nullptr);
}

mail_me *mail_stream_to_tmpfile(FILE *in)
{
    mail_me *me = (mail_me *)calloc(1, sizeof(*me));
    if (me == nullptr) {
        halyx_log(LOG_ERR, "cannot allocate memory for mail data structure");
        return nullptr;
    }
    me->spool_path = asprintf_safe(MAIL_SPOOL_TEMPLATE, MAIL_SPOOL_DIR);
    me_header_init(&me->headers);

    int fd;
    FILE *spool = spool_file(me->spool_path, &fd);
    if (fd < 0) {
        halyx_log(LOG_ERR, "cannot create temporary file '%s': (%d) %s", me->spool_path, errno,
                  strerror(errno));
        /* no file of ours stands behind the path: never unlink it */
        free(me->spool_path);
        me->spool_path = nullptr;
        mail_me_free(me);
        return nullptr;
    }
    if (spool == nullptr) {
        halyx_log(LOG_ERR, "cannot open temporary file '%s': (%d) %s", me->spool_path, errno,
                  strerror(errno));
        close(fd);
        mail_me_free(me);
        return nullptr;
    }

    const char *failure = nullptr;
    if (mail_header_read(in, me) != 0)
        failure = "cannot parse the e-mail's envelope.";
    else if (mail_header_write(spool, me) != 0)
        failure = "cannot save the e-mail's headers.";
    else if (write_fp_to_fp(in, spool) != 0)
        failure = "cannot save the e-mail's body.";
    /* a full disk may show only when the last buffer is flushed */
    if (fclose(spool) != 0 && failure == nullptr) failure = "cannot save the e-mail's body.";
    if (failure != nullptr) {
        halyx_log(LOG_ERR, "%s", failure);
        mail_me_free(me);
        return nullptr;
    }
    return me;
}

mail_me *mail_stream_headers(FILE *in)
{
    mail_me *me = (mail_me *)calloc(1, sizeof(*me));
    if (me == nullptr) {
        halyx_log(LOG_ERR, "cannot allocate memory for mail data structure");
        return nullptr;
    }
    me_header_init(&me->headers);
    if (mail_header_read(in, me) != 0) {
        halyx_log(LOG_ERR, "cannot parse the e-mail's envelope.");
        mail_me_free(me);
        return nullptr;
    }
    return me;
}

namespace
{

/* Edited - mail_stream_edited's cookie: the header block as written, then the input */
struct Edited {
    char *head;
    size_t size, at;
    FILE *rest;
};

ssize_t edited_read(void *cookie, char *buf, size_t size)
{
    auto *e = static_cast<Edited *>(cookie);
    if (e->at < e->size) {
        size_t n = e->size - e->at < size ? e->size - e->at : size;
        memcpy(buf, e->head + e->at, n);
        e->at += n;
        return (ssize_t)n;
    }
    size_t n = fread(buf, 1, size, e->rest);
    return n == 0 && ferror(e->rest) ? -1 : (ssize_t)n;
}

int edited_close(void *cookie)
{
    auto *e = static_cast<Edited *>(cookie);
    free(e->head);
    free(e);
    return 0;
}

} // namespace

FILE *mail_stream_edited(mail_me *me, FILE *in)
{
    auto *e = (Edited *)calloc(1, sizeof(Edited));
    if (e == nullptr) return nullptr;
    e->rest = in;
    FILE *head = open_memstream(&e->head, &e->size);
    bool ok = head != nullptr && mail_header_write(head, me) == 0;
    if (head != nullptr) ok = fclose(head) == 0 && ok;
    cookie_io_functions_t io = {edited_read, nullptr, nullptr, edited_close};
    FILE *out = ok ? fopencookie(e, "r", io) : nullptr;
    if (out == nullptr) edited_close(e);
    return out;
}

int mail_tmpfile_replace(mail_me *me)
{
    FILE *old = fopen(me->spool_path, "r");
    if (old == nullptr) {
        halyx_log(LOG_ERR, "Unable to open file '%s': %s", me->spool_path, strerror(errno));
        return -1;
    }
    mail_header_skip(old);

    char *path = asprintf_safe(MAIL_SPOOL_TEMPLATE, MAIL_SPOOL_DIR);
    int fd;
    FILE *out = spool_file(path, &fd);
    if (fd < 0) {
        halyx_log(LOG_ERR, "cannot create temporary file to deliver email '%s'- (%d) %s", path,
                  errno, strerror(errno));
        fclose(old);
        free(path);
        return -1;
    }

    bool ok = out != nullptr && mail_header_write(out, me) == 0 && write_fp_to_fp(old, out) == 0;
    if (out != nullptr)
        ok = fclose(out) == 0 && ok;
    else
        close(fd);
    fclose(old);
    if (!ok) {
        halyx_log(LOG_ERR, "cannot write e-mail into '%s'.", path);
        spool_unlink(path);
        free(path);
        return -1;
    }
    spool_unlink(me->spool_path);
    free(me->spool_path);
    me->spool_path = path;
    return 0;
}

int mail_tmpfile_to_stream(mail_me *me, FILE *out)
{
    FILE *in = fopen(me->spool_path, "r");
    if (in == nullptr) return -1;
    mail_header_skip(in);
    /* flushed here, so that a failure to deliver the header block is reported as one */
    if (mail_header_write(out, me) != 0 || fflush(out) != 0) {
        halyx_log(LOG_ERR, "cannot write the e-mail's envelope into '%s'.", me->spool_path);
        fclose(in);
        return -1;
    }
    /* the body's fate is logged, not returned: the chain has the headers already */
    if (write_fp_to_fp(in, out) != 0 || fflush(out) != 0)
        halyx_log(LOG_ERR, "cannot write the e-mail's body into '%s'.", me->spool_path);
    fclose(in);
    return 0;
}

void mail_me_free(mail_me *me)
{
    if (me == nullptr) return;
    if (me->spool_path != nullptr) spool_unlink(me->spool_path);
    free(me->spool_path);
    me_header_free(&me->headers);
    free(me);
}

int write_fp_to_fp(FILE *in, FILE *out)
{
    if (in == nullptr || out == nullptr) return -1;
    char buf[COPY_CHUNK];
    bool eof;
    do {
        size_t n = fread(buf, 1, sizeof(buf), in);
        if (ferror(in)) return -1;
        eof = feof(in) != 0;
        if (fwrite(buf, 1, n, out) != n || ferror(out)) return -1;
    } while (!eof);
    return 0;
}
