/*
 * mh_handler - start-up shared by every mail handler of the chain.
 *
 * mh_handler_prepare() starts syslog logging, checks the command line
 * (PROGRAM CONTEXT FROM TO...), fills the context and ignores SIGPIPE and
 * SIGINT.  It returns 0, or 255 (the exit status to use) after logging why.
 * The context owns nothing: its pointers point into argv or constant storage.
 */
#ifndef MH_HANDLER_H
#define MH_HANDLER_H

#include <signal.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MH_HOSTNAME_SIZE 65
#define MH_LOG_USAGE "Some args not defined. Use %s <CONTEXT> <FROM> <TO>\n" /* argv[0] */

typedef struct mh_handler_context {
    char hostname[MH_HOSTNAME_SIZE];
    const char *from;
    const char *from_domain; /* after the first '@' of from, or "" */
    const char *context;
    char **recipients; /* argv from index 3, NULL-terminated */
} mh_handler_context;

int mh_handler_prepare(mh_handler_context *ctx, int argc, char **argv);
/* mh_from_domain - the text after the first '@' of from (a pointer into it), or "" */
const char *mh_from_domain(const char *from);

/* mh_std_fds_open - call before anything opens a descriptor (logging included): a
 * closed standard descriptor is re-opened on /dev/null in the direction that fails
 * (stdin write-only, stdout and stderr read-only), so that I/O on it still fails with
 * EBADF but no socket, spool file or key can take its number.  0, or -1 with errno. */
int mh_std_fds_open(void);

/* sig_sethandler - install handler with no flags and an empty mask; 1 on success, 0 on failure */
int sig_sethandler(int sig, void (*handler)(int));
int sig_ignore(int sig);

#ifdef __cplusplus
}
#endif

#endif
