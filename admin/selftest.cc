#include "admin/admin.h"

#include "dkim/dk_engine.h"
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
        dkim_alg_t alg = DKIM_SIGN_UNKNOWN;
        dkim_sig_getkeysize(sig, &bits);
        dkim_sig_getsignalg(sig, &alg);
        report.ok("the signature verifies against the key published in the DNS (" +
                  (alg == DKIM_SIGN_ED25519SHA256 ? std::string("Ed25519 key, ed25519-sha256")
                                                  : std::to_string(bits) + "-bit key") +
                  ")");
    } else {
        const char *why = sig != nullptr ? dkim_sig_geterrorstr(dkim_sig_geterror(sig)) : nullptr;
        report.error(std::string("the signature does not verify: ") + dkim_getresultstr(status) +
                     (why != nullptr ? std::string(" (") + why + ")" : ""));
    }
    dkim_free(dkim);
}

/* key_is_ed25519 - the domain's key file holds an Ed25519 key (false when unreadable: the
 * handler's run then says why) */
bool key_is_ed25519(const std::string &domain, const std::string &selector)
{
    std::string text;
    if (read_key_text(key_path(domain, selector), text) != DK_KEY_OK) return false;
    Pkey key = load_key(text);
    return key && key_type(key.get()) == "ed25519";
}

/* sign_as_milter - the engine run in a child as keyseal-milter runs it, the algorithm chosen
 * by the key's type; the child takes the user's identity first when one is given */
Run sign_as_milter(const std::string &domain, const std::string &selector,
                   const std::string &message, const Access *user)
{
    int out[2];
    if (pipe(out) != 0) throw Problem(std::string("cannot make a pipe: ") + strerror(errno));
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) throw Problem(std::string("cannot fork: ") + strerror(errno));
    if (pid == 0) {
        close(out[0]);
        if (user != nullptr) user->become();
        setenv("PPP_INSIDE_SENDMAIL", "1", 1);
        unsetenv("SMTP_AUTHORIZED");
        unsetenv("TCPREMOTEIP");
        std::string context = DK_CONTEXT_SELECTOR + selector;
        FILE *in = fmemopen((void *)message.data(), message.size(), "r");
        FILE *signed_out = fdopen(out[1], "w");
        if (in == nullptr || signed_out == nullptr) _exit(DK_ENGINE_FAILED);
        dk_engine_job job{};
        job.from_domain = domain.c_str();
        job.context = context.c_str();
        job.in = in;
        job.out = signed_out;
        job.by_key_type = 1; /* keyseal-milter's choice: the algorithm of the key's type */
        int status = dk_engine_run(&job);
        _exit(fclose(signed_out) == 0 ? status : DK_ENGINE_FAILED);
    }
    close(out[1]);
    Run run;
    char buf[65536];
    for (ssize_t n; (n = read(out[0], buf, sizeof(buf))) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        run.out.append(buf, (size_t)n);
    }
    close(out[0]);
    while (waitpid(pid, &run.status, 0) < 0 && errno == EINTR) {
    }
    return run;
}

} // namespace

int cmd_test(std::string domain, const std::string &selector, const Nameservers &ns,
             const std::string &keyseal, const Access *user)
{
    check_names(domain, selector);
    std::string sender = "postmaster@" + domain, trace = "T";
    trace += std::to_string(getpid()); /* "T" + to_string(): a GCC 12 -Wrestrict false alarm */
    std::vector<std::string> args{DK_CONTEXT_SELECTOR + selector, sender, sender};
    const std::string local = DK_ENV_SENDMAIL "=" DK_ENV_SENDMAIL_VALUE;
    std::vector<std::string> env{local, HALYX_LOG_TRACE_ENV "=" + trace,
                                 "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    for (const char *keep : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (getenv(keep) != nullptr) env.push_back(std::string(keep) + "=" + getenv(keep));
    char *sample = nullptr;
    if (asprintf(&sample, SAMPLE, domain.c_str(), domain.c_str(), domain.c_str()) < 0)
        throw Problem("out of memory");
    std::string message = sample;
    free(sample);

    Report report;
    /* signed_ok - a signed message: its size and first line, then the DNS's verdict on it */
    auto signed_ok = [&](const Run &run, const std::string &how) {
        report.ok(how + std::to_string(run.out.size()) + " bytes out");
        std::string first = run.out.substr(0, run.out.find("\n\t"));
        report.note(first.size() < 100 ? first : first.substr(0, 100) + "...");
        verify(run.out, ns, report);
        return report.exit_status();
    };
    if (key_is_ed25519(domain, selector)) {
        /* the handler cannot sign with this key: prove it where it signs */
        report.note(std::string(ED25519_NOTE));
        report.note("signing as keyseal-milter signs (the handler's engine, ed25519-sha256 for "
                    "this key), sender " +
                    sender + ", CONTEXT " + args[0] + ", a sample message" +
                    (user != nullptr ? ", as user " + user->user : ""));
        Run run = sign_as_milter(domain, selector, message, user);
        if (!WIFEXITED(run.status) || WEXITSTATUS(run.status) != DK_ENGINE_SIGNED) {
            report.error("the engine did not sign as keyseal-milter would: " +
                         describe(run.status) + "; its log lines are above");
            return report.exit_status();
        }
        return signed_ok(run, "signed as keyseal-milter signs: ");
    }
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
    return signed_ok(run, "the handler signed: verdict PASS, exit status 0, ");
}

} // namespace keyseal_admin
