#include "mailhandler/mh_handler.h"

#include "util/halyx_log.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

int sig_sethandler(int sig, void (*handler)(int))
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = handler;
    sa.sa_flags = 0;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, nullptr) != 0) {
        halyx_log(LOG_ERR, "set signal(%d) handler failed - %s", sig, strerror(errno));
        return 0;
    }
    return 1;
}

int sig_ignore(int sig)
{
    return sig_sethandler(sig, SIG_IGN);
}

int mh_std_fds_open(void)
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        /* the lower descriptors are open, so open() takes exactly this number */
        int got = open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_NOCTTY);
        if (got < 0) return -1;
        if (got != fd) {
            close(got);
            errno = EBADF;
            return -1;
        }
    }
    return 0;
}

const char *mh_from_domain(const char *from)
{
    const char *at = strchr(from, '@');
    return at != nullptr ? at + 1 : "";
}

int mh_handler_prepare(mh_handler_context *ctx, int argc, char **argv)
{
    static const char usage[] = MH_LOG_USAGE;

    /* logging first, so that even the usage error reaches syslog */
    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, HALYX_LOG_TRACE, nullptr);

    if (argc < 4 || argv[3] == nullptr) {
        const char *prog = argc > 0 && argv[0] != nullptr ? argv[0] : "";
        halyx_log(LOG_ERR, usage, prog);
        fprintf(stderr, usage, prog);
        return 255;
    }

    ctx->from = argv[2];
    ctx->from_domain = mh_from_domain(argv[2]);
    ctx->recipients = &argv[3];
    ctx->context = argv[1];

    if (gethostname(ctx->hostname, sizeof(ctx->hostname)) != 0) {
        halyx_log(LOG_ERR, "Unable to get hostname");
        return 255;
    }

    if (!sig_ignore(SIGPIPE) || !sig_ignore(SIGINT)) {
        halyx_log(LOG_ERR, "System error: %s", strerror(errno));
        return 255;
    }
    return 0;
}
