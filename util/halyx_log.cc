#include "util/halyx_log.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

static void _halyx_utility_logv(int level, const char *fmt, va_list ap);
static void _halyx_utility_log(int level, const char *fmt, ...);
static void _halyx_utility_syslogv(int level, const char *fmt, va_list ap);
static void _halyx_utility_syslog(int level, const char *fmt, ...);

unsigned int LogOpts = LOG_PID;
int LogFacility = LOG_MAIL;
int LogLevel = LOG_INFO;
const char *LogLocation = nullptr;
char LogIdent[64];
char LogTraceId[64];
char *PROGNAME = nullptr;
halyx_logv_fn halyx_logv = _halyx_utility_logv;
halyx_log_fn halyx_log = _halyx_utility_log;

void halyx_log_init(const char *location, int level, int facility, int options, const char *ident)
{
    LogFacility = facility;
    LogLocation = location;
    if (location != nullptr) {
        halyx_log = _halyx_utility_log;
        halyx_logv = _halyx_utility_logv;
        halyx_log_set_level(level);
        return;
    }

    closelog();
    LogOpts = (unsigned int)options | LOG_PID;

    char buf[64];
    snprintf(buf, sizeof(buf), "%s", ident != nullptr ? ident : program_invocation_short_name);
    memcpy(LogIdent, buf, sizeof(LogIdent));

    if (LogOpts & HALYX_LOG_TRACE) {
        const char *env = getenv(HALYX_LOG_TRACE_ENV);
        halyx_log_set_trace(env);
        /* children of this run log under the same id */
        if (env == nullptr || *env == '\0') setenv(HALYX_LOG_TRACE_ENV, LogTraceId, 1);
    }

    openlog(LogIdent, (int)(LogOpts & (LOG_PID | LOG_CONS | LOG_PERROR)), LogFacility);
    halyx_log = _halyx_utility_syslog;
    halyx_logv = _halyx_utility_syslogv;
    halyx_log_set_level(level);
}

void halyx_log_set_trace(const char *id)
{
    if (id != nullptr && *id != '\0')
        snprintf(LogTraceId, sizeof(LogTraceId), "%s", id);
    else
        snprintf(LogTraceId, sizeof(LogTraceId), "%c%ld",
                 toupper((unsigned char)program_invocation_short_name[0]), (long)getpid());
}

void halyx_log_set_level(int level)
{
    int l = level & 7;
    if (level & 8) {
        const char *env = getenv("HALYX_LOG_LEVEL");
        /* the environment may only raise the level, and only with one digit 0-7 */
        if (env != nullptr && env[0] >= '0' && env[0] <= '7' && env[1] == '\0' && env[0] - '0' > l)
            l = env[0] - '0';
    }
    LogLevel = l;
    if (LogLocation == nullptr) setlogmask((1 << (l + 1)) - 1);
}

static void _halyx_utility_logv(int level, const char *fmt, va_list ap)
{
    if (LogLevel < level) return;
    bool console = LogLocation == nullptr || strcasecmp(LogLocation, "console") == 0;
    if (!console && strcasecmp(LogLocation, "stderr") != 0) return;

    va_list copy;
    va_copy(copy, ap);
    vfprintf(stderr, fmt, copy);
    va_end(copy);
    fputs("\n", stderr);
    fflush(stderr);
    if (console) {
        vfprintf(stdout, fmt, ap);
        fputs("\n", stdout);
        fflush(stdout);
    }
}

static void _halyx_utility_log(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    _halyx_utility_logv(level, fmt, ap);
    va_end(ap);
}

static void _halyx_utility_syslogv(int level, const char *fmt, va_list ap)
{
    if ((LogOpts & HALYX_LOG_TRACE) && LogTraceId[0] != '\0') {
        char line[8192];
        int n = snprintf(line, sizeof(line), "%s: ", LogTraceId);
        if (n < 0) n = 0;
        if ((size_t)n < sizeof(line)) vsnprintf(line + n, sizeof(line) - (size_t)n, fmt, ap);
        syslog(level, "%s", line);
    } else {
        vsyslog(level, fmt, ap);
    }
}

static void _halyx_utility_syslog(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    _halyx_utility_syslogv(level, fmt, ap);
    va_end(ap);
}

int ex_messlog(const char *msg, int exit_status, int reserved)
{
    (void)reserved;
    const char *base = nullptr;
    if (PROGNAME != nullptr) {
        const char *slash = strrchr(PROGNAME, '/');
        base = slash != nullptr ? slash + 1 : PROGNAME;
        if (*base == '\0') base = nullptr;
    }
    /* an empty message still gets its line end */
    size_t len = strlen(msg);
    const char *nl = (len > 0 && msg[len - 1] == '\n') ? "" : "\n";
    FILE *streams[2] = {stderr, stdout};
    for (FILE *f : streams) {
        if (base != nullptr) fprintf(f, "%s: ", base);
        fputs(msg, f);
        fputs(nl, f);
        fflush(f);
    }
    if (exit_status != 0) exit(exit_status);
    return 0;
}

int vmesslog2(int exit_status, int reserved, const char *fmt, va_list ap)
{
    int saved = errno;
    size_t size = 4096;
    char *buf = (char *)malloc(size);
    if (buf == nullptr)
        return ex_messlog("Can't allocate memory for error message", exit_status, reserved);

    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(buf, size, fmt, copy);
    va_end(copy);
    if (n < 0) {
        buf[0] = '\0';
        n = 0;
    }
    if ((size_t)n >= size) {
        char *grown = (char *)realloc(buf, (size_t)n + 1);
        if (grown != nullptr) {
            buf = grown;
            size = (size_t)n + 1;
            vsnprintf(buf, size, fmt, ap);
        } else {
            n = (int)size - 1;
        }
    }
    errno = saved;

    if (saved != 0) {
        size_t len = strlen(buf);
        int m = snprintf(buf + len, size - len, "\nSystem error %d: %s", saved, strerror(saved));
        if (m < 0 || (size_t)m >= size - len) {
            /* the suffix never makes the buffer grow: drop it */
            buf[len] = '\0';
            char *shrunk = (char *)realloc(buf, len + 2);
            if (shrunk != nullptr) buf = shrunk;
        }
    }
    int rc = ex_messlog(buf, exit_status, reserved);
    free(buf);
    return rc;
}

int messlog2(int exit_status, int reserved, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vmesslog2(exit_status, reserved, fmt, ap);
    va_end(ap);
    return rc;
}

char *asprintf_safe(const char *fmt, ...)
{
    char *out = nullptr;
    va_list ap;
    va_start(ap, fmt);
    int n = vasprintf(&out, fmt, ap);
    va_end(ap);
    if (n < 0) {
        messlog2(1, 1, "Cannot allocate memory: %s", strerror(errno));
        return nullptr; /* not reached */
    }
    return out;
}
