#include "dkim/dk_policy.h"

#include "dkim/whitelist.h"
#include "util/halyx_log.h"

#include <cstdlib>
#include <cstring>

int dk_policy_decide(char **line)
{
    /* exact comparison: 01 or yes do not count */
    const char *v = getenv(DK_ENV_SENDMAIL);
    if (v != nullptr && strcmp(v, DK_ENV_SENDMAIL_VALUE) == 0) {
        *line = asprintf_safe(DK_LOG_SENDMAIL, v);
        return DK_POLICY_SENDMAIL;
    }
    v = getenv(DK_ENV_AUTHORIZED);
    if (v != nullptr && *v != '\0') {
        *line = asprintf_safe(DK_LOG_AUTHORIZED, v);
        return DK_POLICY_AUTHORIZED;
    }
    v = getenv(DK_ENV_CLIENT);
    if (v != nullptr && *v != '\0' && dkim_whitelist_contains(v)) {
        *line = asprintf_safe(DK_LOG_WHITELISTED, v);
        return DK_POLICY_WHITELISTED;
    }
    *line = asprintf_safe(DK_LOG_NOT_SIGNING, v != nullptr ? v : DK_LOG_NO_CLIENT);
    return DK_POLICY_SKIP;
}
