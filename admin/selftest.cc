#include "admin/admin.h"

#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

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
    std::vector<std::string> args{DK_CONTEXT_SELECTOR + selector, sender, sender};
    const std::string local = DK_ENV_SENDMAIL "=" DK_ENV_SENDMAIL_YES;
    std::vector<std::string> env{local, HALYX_LOG_TRACE_ID_ENV "=" + trace,
                                 "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    for (const char *keep : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (getenv(keep) != nullptr) env.push_back(std::string(keep) + "=" + getenv(keep));
    char *sample = nullptr;
    if (asprintf(&sample, SAMPLE, domain.c_str(), domain.c_str(), domain.c_str()) < 0)
        throw Problem("out of memory");
    std::string message = sample;
    free(sample);

    Report report;
    report.note("running " + local + " " + keyseal + " " + args[0] + " " + sender + " " + sender +
                " < (a sample message)" + (user != nullptr ? ", as user " + user->user : ""));
    Run run = run_program(keyseal, args, env, message, user);
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
