/*
 * halyx_log - process-wide logging and the fatal-message path.
 *
 * All modules report through the function pointers halyx_log/halyx_logv with a
 * syslog level (3 error, 4 warning, 6 informational, 7 debug).  Before
 * halyx_log_init() lines go to stderr and stdout; after halyx_log_init(NULL, ...)
 * they go to syslog, each prefixed by the run's trace id when option bit 64 is set.
 *
 * messlog2/vmesslog2/ex_messlog print a message to stderr and stdout and exit
 * when given a non-zero exit status.  asprintf_safe never returns NULL: it ends
 * the process with status 1 when memory runs out; the caller frees the result.
 * Single-threaded: the globals below are written without locks.
 */
#ifndef HALYX_LOG_H
#define HALYX_LOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HALYX_LOG_TRACE 64 /* option bit: trace id in front of every syslog line */

typedef void (*halyx_logv_fn)(int level, const char *fmt, va_list ap);
typedef void (*halyx_log_fn)(int level, const char *fmt, ...);

extern unsigned int LogOpts;
extern int LogFacility;
extern int LogLevel;
extern const char *LogLocation;
extern char LogIdent[64];
extern char LogTraceId[64];
extern char *PROGNAME;
extern halyx_logv_fn halyx_logv;
extern halyx_log_fn halyx_log;

/* location NULL = syslog; "console" = stderr+stdout; "stderr"; anything else = nowhere */
void halyx_log_init(const char *location, int level, int facility, int options, const char *ident);
/* level word: bits 0-2 the level, bit 3 lets HALYX_LOG_LEVEL raise it */
void halyx_log_set_level(int level);
unsigned int halyx_log_get_opts(void);

int messlog2(int exit_status, int reserved, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int vmesslog2(int exit_status, int reserved, const char *fmt, va_list ap);
int ex_messlog(const char *msg, int exit_status, int reserved);

char *asprintf_safe(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
