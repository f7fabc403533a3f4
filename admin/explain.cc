#include "admin/admin.h"

#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mh_handler.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace keyseal_admin
{

namespace
{

const char *const POLICY_VARIABLES[] = {"PPP_INSIDE_SENDMAIL", "SMTP_AUTHORIZED", "TCPREMOTEIP"};

/* A message the signer accepts, so that only the key and the names can make it fail */
const char SAMPLE[] = "From: keyseal-admin <explain@localhost>\n\nexplain\n";

int verdict(const char *word, const std::string &log)
{
    printf("verdict: %s\n", word);
    if (!log.empty()) printf("log: %s\n", log.c_str());
    return strcmp(word, "PASS") == 0 ? EXIT_OK : EXIT_PROBLEM;
}

/* sign_sample - the handler's signer on a sample with this key: its failure line, or "" */
std::string sign_sample(const char *domain, const char *selector, const char *key)
{
    FILE *msg = fmemopen((void *)SAMPLE, sizeof(SAMPLE) - 1, "r");
    if (msg == nullptr) throw Problem("cannot open the sample message");
    dk_result *r = keyseal(domain, selector, key, msg);
    fclose(msg);
    char *failure = dk_result_failure(r);
    dk_result_free(r);
    std::string line = failure != nullptr ? failure : "";
    free(failure);
    return line;
}

} // namespace

int cmd_explain(const std::string &from, const std::string &context,
                const std::vector<std::string> &env)
{
    for (const auto &setting : env) {
        size_t eq = setting.find('=');
        std::string name = setting.substr(0, eq);
        bool known = false;
        for (const char *v : POLICY_VARIABLES)
            known |= name == v;
        if (eq == std::string::npos || !known)
            throw Usage("--env takes NAME=VALUE with NAME one of PPP_INSIDE_SENDMAIL, "
                        "SMTP_AUTHORIZED, TCPREMOTEIP: '" +
                        setting + "'");
        setenv(name.c_str(), setting.c_str() + eq + 1, 1);
    }
    for (const char *v : POLICY_VARIABLES) {
        const char *value = getenv(v);
        printf("environment: %s%s%s\n", v, value != nullptr ? "=" : " is not set",
               value != nullptr ? value : "");
    }

    char *line = nullptr;
    int rule = dk_policy_decide(&line);
    std::string decision = line;
    free(line);
    printf("policy: %s\n", decision.c_str());
    if (rule == DK_POLICY_SKIP) return verdict("SKIP", "");
    if (rule == DK_POLICY_WHITELISTED)
        printf("whitelist: admitted by %s\n", whitelist_entry(getenv("TCPREMOTEIP")).c_str());

    const char *domain = mh_from_domain(from.c_str());
    char *selector = dk_selector_from_context(context.c_str());
    std::string sel = selector;
    free(selector);
    printf("sender: '%s', signing domain '%s'\n", from.c_str(), domain);
    printf("selector: '%s'%s\n", sel.c_str(),
           context.find(DK_CONTEXT_SELECTOR) == std::string::npos ? " (no dkimsel= in CONTEXT)"
                                                                  : "");
    std::string path = key_path(domain, sel);
    printf("key: %s\n", path.c_str());

    Report report;
    inspect_key(path, report);
    std::string key;
    int status = read_key_text(path, key);
    if (status != DK_KEY_OK) {
        char *why = dk_key_failure(status, path.c_str());
        std::string text = why;
        free(why);
        return verdict("ERROR", text);
    }
    std::string failure = sign_sample(domain, sel.c_str(), key.c_str());
    std::fill(key.begin(), key.end(), '\0');
    return failure.empty() ? verdict("PASS", "") : verdict("ERROR", failure);
}

} // namespace keyseal_admin
