#include "dkim/dk_policy.h"

#include "dkim/whitelist.h"
#include "util/halyx_log.h"

#include <cstdlib>
#include <cstring>

void dk_policy_from_env(dk_policy_inputs *in)
{
    in->sendmail = getenv(DK_ENV_SENDMAIL);
    in->authorized = getenv(DK_ENV_AUTHORIZED);
    in->client = getenv(DK_ENV_CLIENT);
}

int dk_policy_decide(const dk_policy_inputs *in, char **line)
{
    dk_policy_inputs env;
    if (in == nullptr) {
        dk_policy_from_env(&env);
        in = &env;
    }
    /* exact comparison: 01 or yes do not count */
    const char *v = in->sendmail;
    if (v != nullptr && strcmp(v, DK_ENV_SENDMAIL_VALUE) == 0) {
        *line = asprintf_safe(DK_LOG_SENDMAIL, v);
        return DK_POLICY_SENDMAIL;
    }
    v = in->authorized;
    if (v != nullptr && *v != '\0') {
        *line = asprintf_safe(DK_LOG_AUTHORIZED, v);
        return DK_POLICY_AUTHORIZED;
    }
    v = in->client;
    if (v != nullptr && *v != '\0' && dkim_whitelist_contains(v)) {
        *line = asprintf_safe(DK_LOG_WHITELISTED, v);
        return DK_POLICY_WHITELISTED;
    }
    *line = asprintf_safe(DK_LOG_NOT_SIGNING, v != nullptr ? v : DK_LOG_NO_CLIENT);
    return DK_POLICY_SKIP;
}
