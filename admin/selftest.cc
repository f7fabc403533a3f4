#include "admin/admin.h"

#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace keyseal_admin
{

namespace
{

const char SAMPLE[] = "Received: from localhost by keyseal-admin test\n"
                      "From: Postmaster <postmaster@%s>\n"
                      "To: postmaster@%s\n"
                      "Subject: keyseal self-test\n"
                      "Message-ID: <keyseal-admin-test@%s>\n"
                      "\n"
                      "This message was signed by keyseal and verified by keyseal-admin.\n";

struct Run {
    int status = -1;
    std::string out, err;
};

/* run_handler - the handler exactly as the chain runs it, as user when given: message on
 * stdin, verdict on stderr */
Run run_handler(const std::string &keyseal, const std::vector<std::string> &args,
                const std::vector<std::string> &env, const std::string &message, const Access *user)
{
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        throw Problem(std::string("cannot make pipes: ") + strerror(errno));
    std::vector<char *> argv{(char *)keyseal.c_str()}, envp;
    for (const auto &a : args)
        argv.push_back((char *)a.c_str());
    argv.push_back(nullptr);
    for (const auto &e : env)
        envp.push_back((char *)e.c_str());
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (dup2(in[0], 0) < 0 || dup2(out[1], 1) < 0 || dup2(err[1], 2) < 0) _exit(127);
        if (user != nullptr) user->become();
        execve(keyseal.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    int rc = pid < 0 ? errno : 0;
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        close(in[1]), close(out[0]), close(err[0]);
        throw Problem("cannot run the handler " + keyseal + ": " + strerror(rc) +
                      ": name it with --keyseal PATH");
    }
    /* the sample is small: it fits in the pipe, so writing first cannot deadlock */
    if (write(in[1], message.data(), message.size()) < 0 && errno != EPIPE) {
    }
    close(in[1]);
    Run run;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sinks[2] = {&run.out, &run.err};
    for (int open = 2; open > 0;) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[8192];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                sinks[i]->append(buf, (size_t)n);
                continue;
            }
            close(fds[i].fd);
            fds[i].fd = -1;
            open--;
        }
    }
    waitpid(pid, &run.status, 0);
    return run;
}

std::string describe(int status)
{
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

/* verify - libopendkim's verifier on the signed message, keys from the DNS */
void verify(const std::string &message, const Nameservers &ns, Report &report)
{
    DkimLibrary lib(ns, DKIM_LIBFLAGS_FIXCRLF); /* the handler writes LF line ends */
    DKIM_STAT status = DKIM_STAT_OK;
    DKIM *dkim =
        dkim_verify(lib.get(), (const unsigned char *)"keyseal-admin test", nullptr, &status);
    if (dkim == nullptr)
        throw Problem(std::string("cannot start verifying: ") + dkim_getresultstr(status));
    status = dkim_chunk(dkim, (unsigned char *)message.data(), message.size());
    if (status == DKIM_STAT_OK) status = dkim_chunk(dkim, nullptr, 0);
    if (status == DKIM_STAT_OK) status = dkim_eom(dkim, nullptr);
    DKIM_SIGINFO *sig = dkim_getsignature(dkim);
    if (status == DKIM_STAT_OK && sig != nullptr && DKIM_SIG_CHECK(sig)) {
        unsigned int bits = 0;
        dkim_sig_getkeysize(sig, &bits);
        report.ok("the signature verifies against the key published in the DNS (" +
                  std::to_string(bits) + "-bit key)");
    } else {
        const char *why = sig != nullptr ? dkim_sig_geterrorstr(dkim_sig_geterror(sig)) : nullptr;
        report.error(std::string("the signature does not verify: ") + dkim_getresultstr(status) +
                     (why != nullptr ? std::string(" (") + why + ")" : ""));
    }
    dkim_free(dkim);
}

} // namespace

int cmd_test(const std::string &domain, const std::string &selector, const Nameservers &ns,
             const std::string &keyseal, const Access *user)
{
    check_names(domain, selector);
    std::string sender = "postmaster@" + domain, trace = "T";
    trace += std::to_string(getpid()); /* "T" + to_string(): a GCC 12 -Wrestrict false alarm */
    std::vector<std::string> args{"dkimsel=" + selector, sender, sender};
    std::vector<std::string> env{"PPP_INSIDE_SENDMAIL=1", "HALYX_LOG_TRACE_ID=" + trace,
                                 "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    for (const char *keep : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (getenv(keep) != nullptr) env.push_back(std::string(keep) + "=" + getenv(keep));
    char *sample = nullptr;
    if (asprintf(&sample, SAMPLE, domain.c_str(), domain.c_str(), domain.c_str()) < 0)
        throw Problem("out of memory");
    std::string message = sample;
    free(sample);

    Report report;
    report.note("running PPP_INSIDE_SENDMAIL=1 " + keyseal + " " + args[0] + " " + sender + " " +
                sender + " < (a sample message)" +
                (user != nullptr ? ", as user " + user->user : ""));
    Run run = run_handler(keyseal, args, env, message, user);
    bool passed = WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0 && run.err == "PASS";
    if (!passed) {
        report.error("the handler did not sign: " + describe(run.status) + ", standard error \"" +
                     run.err + "\"; its log lines are in syslog, facility mail, with trace id " +
                     trace + " (journalctl -t keyseal, or /var/log/mail.log)");
        return report.exit_status();
    }
    report.ok("the handler signed: verdict PASS, exit status 0, " + std::to_string(run.out.size()) +
              " bytes out");
    std::string first = run.out.substr(0, run.out.find("\n\t"));
    report.note(first.size() < 100 ? first : first.substr(0, 100) + "...");
    verify(run.out, ns, report);
    return report.exit_status();
}

} // namespace keyseal_admin
