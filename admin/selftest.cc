#include "admin/selftest.h"

#include "admin/access.h"
#include "admin/dns.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "admin/run.h"
#include "milter/milter_conf.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "milter/job.h"
#include "milter/worker.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
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
void verify(const std::string &message, const Nameservers &ns, Findings &report)
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

/* milter_settings - keyseal-milter's settings as it would load them now */
keyseal_milter::Config milter_settings()
{
    try {
        return keyseal_milter::load(MILTER_CONF_PATH);
    } catch (const keyseal_milter::ConfigError &e) {
        throw Problem(std::string(e.what()) + ": fix it, then keyseal-milter --check-config");
    }
}

/* sign_as_milter - the sample as keyseal-milter's worker signs a local submission from
 * sender, with the job keyseal-milter would make under its settings (headers, oversign) but
 * the selector under test; in a child that takes the user's identity first when one is
 * given.  run.out: the signed message; the exit status the engine's. */
Run sign_as_milter(const keyseal_milter::Config &config, const std::string &domain,
                   const std::string &selector, const std::string &sender,
                   const std::string &message, const Access *user)
{
    keyseal_milter::Envelope envelope;
    envelope.sender = sender;
    envelope.domain = domain;
    envelope.recipients = {sender};
    envelope.local = true;
    envelope.from = {domain};
    envelope.queue_id = "keyseal-admin-test";
    keyseal_milter::Job job = keyseal_milter::make_job(config, envelope);
    job.selectors = {selector};
    job.context = DK_CONTEXT_SELECTOR + selector;

    int out[2];
    if (pipe(out) != 0) throw Problem(std::string("cannot make a pipe: ") + strerror(errno));
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) throw Problem(std::string("cannot fork: ") + strerror(errno));
    if (pid == 0) {
        close(out[0]);
        if (user != nullptr) user->become();
        int fd = memfd_create("keyseal-admin test", MFD_CLOEXEC);
        if (fd < 0 || write_all(fd, message.data(), message.size()) != 0) _exit(DK_ENGINE_FAILED);
        keyseal_milter::Result r = keyseal_milter::serve(job, fd, false);
        if (r.verdict != keyseal_milter::Verdict::SIGNED) _exit(DK_ENGINE_FAILED);
        /* the signatures first, in order, as keyseal-milter has the mail server insert them */
        std::string signed_message;
        for (const std::string &sig : r.signatures)
            signed_message += sig;
        signed_message += message;
        _exit(write_all(out[1], signed_message.data(), signed_message.size()) == 0
                  ? DK_ENGINE_SIGNED
                  : DK_ENGINE_FAILED);
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

/* signed_fields - the h= tag of the message's first header, a DKIM-Signature; "" if none */
std::string signed_fields(const std::string &message)
{
    std::string header;
    for (size_t at = 0; at < message.size();) {
        size_t end = message.find('\n', at);
        if (end == std::string::npos) end = message.size();
        if (at > 0 && message[at] != ' ' && message[at] != '\t') break;
        header += message.substr(at, end - at);
        at = end + 1;
    }
    for (size_t at = header.find(':'); at != std::string::npos; at = header.find(';', at)) {
        size_t tag = header.find_first_not_of(" \t\r", ++at);
        if (tag != std::string::npos && header.compare(tag, 2, "h=") == 0) {
            std::string value = header.substr(tag + 2, header.find(';', tag) - tag - 2);
            std::erase_if(value, [](char c) { return c == ' ' || c == '\t' || c == '\r'; });
            return value;
        }
    }
    return "";
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

    Findings report;
    /* signed_ok - a signed message: its size and first line, then the DNS's verdict on it */
    auto signed_ok = [&](const Run &run, const std::string &how) {
        report.ok(how + std::to_string(run.out.size()) + " bytes out");
        std::string first = run.out.substr(0, run.out.find("\n\t"));
        report.note(first.size() < 100 ? first : first.substr(0, 100) + "...");
        report.note("signed fields (h=): " + signed_fields(run.out));
        verify(run.out, ns, report);
        return report.exit_status();
    };
    if (key_is_ed25519(domain, selector)) {
        /* the handler cannot sign with this key: prove it where it signs */
        report.note(std::string(ED25519_NOTE));
        keyseal_milter::Config config = milter_settings();
        report.note("signing as keyseal-milter signs (its worker, with the header fields of " +
                    config.path + " and ed25519-sha256 for this key), a local submission from " +
                    sender + ", selector " + selector + ", a sample message" +
                    (user != nullptr ? ", as user " + user->user : ""));
        Run run = sign_as_milter(config, domain, selector, sender, message, user);
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
