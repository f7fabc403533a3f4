#include "admin/explain.h"

#include "admin/files.h"
#include "admin/keys.h"
#include "admin/whitelist.h"

#include "dkim/dk_engine.h"
#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "mailhandler/mh_handler.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace keyseal_admin
{

namespace
{

const char *const POLICY_VARIABLES[] = {DK_ENV_SENDMAIL, DK_ENV_AUTHORIZED, DK_ENV_CLIENT};

/* A message the signer accepts, so that only the key and the names can make it fail */
const char SAMPLE[] = "From: keyseal-admin <explain@localhost>\n\nexplain\n";

/* The handler's error lines of this run, in order: explain shows them as the log would */
std::vector<std::string> errors;

void capture_logv(int level, const char *fmt, va_list ap)
{
    if (level > LOG_ERR) return;
    char *line = nullptr;
    if (vasprintf(&line, fmt, ap) >= 0) errors.emplace_back(line);
    free(line);
}

void capture_log(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    capture_logv(level, fmt, ap);
    va_end(ap);
}

/* observe - one line per decision of the engine, as it takes it */
void observe(void *data, int event, int number, const char *text)
{
    const char *tcp = getenv(DK_ENV_CLIENT);
    switch (event) {
    case DK_EVENT_POLICY:
        printf("policy: %s\n", text);
        if (number == DK_POLICY_WHITELISTED)
            printf("whitelist: admitted by %s\n", whitelist_entry(tcp).c_str());
        break;
    case DK_EVENT_CUT:
        printf("removed: DKIM-Signature header %d: %.*s\n", number, (int)strcspn(text, "\r\n"),
               text);
        break;
    case DK_EVENT_KEPT:
        printf("kept: DKIM-Signature header %d: %s\n", number, text);
        break;
    case DK_EVENT_KEY: {
        printf("key: %s\n", text);
        Findings report;
        inspect_key(text, report);
        break;
    }
    case DK_EVENT_SIGNED:
        printf("signed: %.*s\n", (int)strcspn(text, "\n"), text);
        break;
    }
    (void)data;
}

} // namespace

int cmd_explain(const std::string &from, const std::string &context,
                const std::vector<std::string> &env, const std::string &message)
{
    for (const auto &setting : env) {
        size_t eq = setting.find('=');
        std::string name = setting.substr(0, eq);
        bool known = false;
        for (const char *v : POLICY_VARIABLES)
            known |= name == v;
        if (eq == std::string::npos || !known)
            throw Usage("--env takes NAME=VALUE with NAME one of " DK_ENV_SENDMAIL
                        ", " DK_ENV_AUTHORIZED ", " DK_ENV_CLIENT ": '" +
                        setting + "'");
        setenv(name.c_str(), setting.c_str() + eq + 1, 1);
    }
    FILE *in = message.empty() ? fmemopen((void *)SAMPLE, sizeof(SAMPLE) - 1, "r")
                               : fopen(message.c_str(), "r");
    if (in == nullptr)
        throw Problem("cannot read the message " + errno_text(message) +
                      ": name a readable file with --message");

    for (const char *v : POLICY_VARIABLES) {
        const char *value = getenv(v);
        printf("environment: %s%s%s\n", v, value != nullptr ? "=" : " is not set",
               value != nullptr ? value : "");
    }
    const char *domain = mh_from_domain(from.c_str());
    char *selector = dk_selector_from_context(context.c_str());
    printf("sender: '%s', signing domain '%s'\n", from.c_str(), domain);
    /* the handler takes the domain as given; keyseal-milter hands it over canonical */
    char *canonical = *domain != '\0' ? dk_domain_canonical(domain) : nullptr;
    if (*domain != '\0' && canonical == nullptr)
        printf("note: keyseal-milter would not give this sender to the handler: '%s' is not a "
               "host name\n",
               domain);
    else if (canonical != nullptr && strcmp(canonical, domain) != 0)
        printf("note: keyseal-milter would hand the handler '%s' (lower case, no trailing dot), "
               "the name keyseal-admin keeps keys under; this replay uses '%s' as given\n",
               canonical, domain);
    free(canonical);
    printf("selector: '%s'%s\n", selector,
           context.find(DK_CONTEXT_SELECTOR) == std::string::npos ? " (no dkimsel= in CONTEXT)"
                                                                  : "");
    free(selector);
    printf("message: %s\n", message.empty() ? "a sample from the sender" : message.c_str());

    /* the handler's own flow, its log lines caught instead of sent, nothing written out */
    halyx_log = capture_log;
    halyx_logv = capture_logv;
    dk_engine_job job = {domain, context.c_str(), in,      nullptr, observe, nullptr, nullptr,
                         0,      nullptr,         nullptr, nullptr, nullptr, 0};
    int status = dk_engine_run(&job);
    fclose(in);

    const char *verdict = status == DK_ENGINE_SIGNED    ? "PASS"
                          : status == DK_ENGINE_SKIPPED ? "SKIP"
                                                        : "ERROR";
    printf("verdict: %s\n", verdict);
    for (const auto &line : errors)
        printf("log: %s\n", line.c_str());
    return status == DK_ENGINE_SIGNED ? EXIT_OK : EXIT_PROBLEM;
}

} // namespace keyseal_admin
