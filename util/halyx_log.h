/*
 * halyx_log - process-wide logging and the fatal-message path.
 *
 * All modules report through the function pointers halyx_log/halyx_logv with a
 * syslog level (LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG).  After
 * halyx_log_init(NULL, ...) lines go to syslog, each prefixed by the run's trace id
 * when option bit 64 is set.
 * WARNING: before halyx_log_init() every line goes to stdout as well as stderr: a
 * program whose stdout carries data (a handler, keyseal-admin) must initialise first.
 *
 * WARNING: messlog2/vmesslog2/ex_messlog end the process when given a non-zero exit
 * status (after printing to stderr and stdout); asprintf_safe ends it with status 1
 * when memory runs out, so it never returns NULL.  The caller frees its result.
 * Single-threaded: the globals below are written without locks.
 */
#ifndef HALYX_LOG_H
#define HALYX_LOG_H

#include <stdarg.h>
#include <syslog.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HALYX_LOG_TRACE 64 /* option bit: trace id in front of every syslog line */
#define HALYX_LOG_TRACE_ENV "HALYX_LOG_TRACE_ID" /* the run's trace id, passed to children */
#define HALYX_LOG_MAY_RAISE 8 /* level-word bit: HALYX_LOG_LEVEL may raise the level */
/* The mail handlers' level word (14): informational, and the environment may raise it */
#define HALYX_LOG_HANDLER_LEVEL (HALYX_LOG_MAY_RAISE | LOG_INFO)

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
/* halyx_log_set_trace - the trace id of the lines to come, for a process that logs one run
 * after another (keyseal-milter's worker); NULL or "" gives the process's own id, as
 * halyx_log_init makes one.  Longer ids are cut to 63 bytes. */
void halyx_log_set_trace(const char *id);

int messlog2(int exit_status, int reserved, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int vmesslog2(int exit_status, int reserved, const char *fmt, va_list ap);
int ex_messlog(const char *msg, int exit_status, int reserved);

char *asprintf_safe(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
