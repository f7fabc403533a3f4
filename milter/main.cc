/*
 * keyseal-milter - signs a mail server's outgoing mail through the milter protocol with
 * the keyseal handler's own code.
 *
 * Per message the session (milter/session.h) keeps the message and hands it, with the
 * handler's arguments and policy inputs taken from the session, to the signing engine in
 * a worker of the helper process (milter/helper.h, milter/pool.h): local submission when
 * Postfix's cleanup presents the local mark as {daemon_name}, the authenticated user from
 * {auth_authen}, the SMTP client's address.  The handler decides; the milter applies the
 * verdict (milter/verdict.h).  The body is never changed.
 *
 * Processes, threads and signals (milter/supervisor.h, milter/pool.h): the main thread
 * owns the signals, the settings and the helper; libmilter runs on a thread of its own and
 * serves each connection on a thread; the helper, exec'd from this program with
 * POOL_ARGUMENT, forks the workers.  Exit status: 0 stopped as asked, 1 a failure to start
 * or to recover, 2 usage or configuration error.
 */
#include "milter/client_filter.h"
#include "milter/helper.h"
#include "milter/key_cache.h"
#include "milter/metrics.h"
#include "milter/milter_conf.h"
#include "milter/milter_log.h"
#include "milter/pool.h"
#include "milter/session.h"
#include "milter/supervisor.h"

#include "mailhandler/mh_handler.h"
#include "util/halyx_log.h"

#include <libmilter/mfapi.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

using namespace keyseal_milter;

namespace
{

/* Before anything else, the library's constructors excepted: a signal that arrives while
 * keyseal-milter starts waits for the supervisor instead of ending the process.  The helper,
 * the same program, sets its own mask (pool_main). */
__attribute__((constructor)) void block_owned_signals()
{
    signals_block();
}

/* Postfix accepts a header of up to header_size_limit bytes (at most 1 MB): any of them
 * must reach the session, whose packet carries its name and value */
constexpr size_t MAX_DATA = (1 << 20) + 4096;

const char USAGE[] =
    "usage: keyseal-milter [-f] [-c FILE] [--check-config] [--help] [--version]\n"
    "  -f, --foreground   stay in the foreground (as the systemd service runs it)\n"
    "  -c, --config FILE  the configuration (default " MILTER_CONF_PATH ")\n"
    "  --check-config     print the effective settings and exit (2 on an error)\n";

} // namespace

/* The calls libmilter makes that keyseal-milter answers itself (milter/client_filter.h),
 * defined in the program alone: in the library they would stand in for the C library's in
 * every program that links it. */
extern "C" int accept(int fd, sockaddr *addr, socklen_t *len)
{
    return filter_accept(fd, addr, len);
}

extern "C" ssize_t read(int fd, void *buf, size_t count)
{
    return filter_read(fd, buf, count);
}

extern "C" int poll(pollfd *fds, nfds_t n, int timeout)
{
    return filter_poll(fds, n, timeout);
}

extern "C" int close(int fd)
{
    return filter_close(fd);
}

/* sigwait - where libmilter's signal thread waits: for ever.  The owned signals are the
 * supervisor's, read from its signalfd (milter/supervisor.h); were the library to take
 * one, a SIGHUP would end its loop and with it the service.  Nothing else in
 * keyseal-milter calls sigwait(). */
extern "C" int sigwait(const sigset_t *, int *)
{
    for (;;)
        pause();
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], POOL_ARGUMENT) == 0)
        pool_main(POOL_REQUESTS_FD, key_cache_keep); /* the cache is this program's */
    /* a closed standard descriptor must not become the listening socket's number, which a
     * child would then keep */
    if (mh_std_fds_open() != 0) return 1;
    static const option options[] = {
        {"foreground", no_argument, nullptr, 'f'},   {"config", required_argument, nullptr, 'c'},
        {"check-config", no_argument, nullptr, 'k'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0}};
    bool foreground = false, check_only = false;
    std::string config_path = MILTER_CONF_PATH;
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
    static Settings settings(config_path);
    try {
        settings.load();
    } catch (const ConfigError &e) {
        fprintf(stderr, "keyseal-milter: %s\n", e.what());
        return 2;
    }
    auto config = settings.get();
    if (check_only) {
        fputs(config->settings().c_str(), stdout);
        return 0;
    }

    halyx_log_init(nullptr, HALYX_LOG_HANDLER_LEVEL, LOG_MAIL, 0, MILTER_IDENT);
    static Helper helper;
    smfiDesc desc = {};
    session_register(desc, settings, helper);
    client_filter_bind(&settings);
    /* the socket's group (postfix, from the setgid directory) must be able to connect */
    umask(007);
    smfi_setmaxdatasize(MAX_DATA); /* answers the old limit */
    if (smfi_setconn((char *)config->socket.c_str()) != MI_SUCCESS ||
        smfi_register(desc) != MI_SUCCESS || smfi_opensocket(1) != MI_SUCCESS) {
        fprintf(stderr, "keyseal-milter: cannot listen on %s: %s\n", config->socket.c_str(),
                strerror(errno));
        return 1;
    }
    if (!foreground && daemon(0, 0) != 0) {
        fprintf(stderr, "keyseal-milter: cannot become a daemon: %s\n", strerror(errno));
        return 1;
    }
    write_pid(config->pid_file);
    fflush(nullptr);
    if (helper.start() != 0) {
        halyx_log(LOG_ERR, "cannot start the signing helper: %s", strerror(errno));
        return 1;
    }
    if (start_milter() != 0) {
        halyx_log(LOG_ERR, "cannot start the milter thread: %s", strerror(errno));
        return 1;
    }
    halyx_log(LOG_INFO, "listening on %s (selector %s, %s, time limit %d s, workers %d)",
              config->socket.c_str(), config->selector.front().c_str(),
              config->strict ? "strict" : "fail open", config->timeout, config->workers);
    /* the endpoint is the monitoring's, not the mail's: without it, signing goes on */
    metrics_settings(metrics(), config->workers, config->metrics_per_domain);
    static MetricsServer metrics_server;
    if (!config->metrics.empty() && metrics_server.start(config->metrics, [](const sockaddr *peer) {
            auto c = settings.get();
            return c->client_allowed(address_text(peer));
        }) != 0)
        halyx_log(LOG_ERR, MILTER_LOG_METRICS_FAILED, config->metrics.c_str(), strerror(errno));
    else if (!config->metrics.empty())
        halyx_log(LOG_INFO, MILTER_LOG_METRICS, config->metrics.c_str());
    int status = supervise(settings, helper);
    closelog();
    /* libmilter's threads are still there: nothing may run their destructors under them */
    _exit(status);
}
