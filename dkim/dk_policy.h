/*
 * dk_policy - the signing policy: may this message be signed, and by which rule.
 *
 * Rules, tested in this order from the process environment, the first that holds
 * deciding: PPP_INSIDE_SENDMAIL exactly "1"; SMTP_AUTHORIZED not empty; TCPREMOTEIP not
 * empty and on the signing whitelist (the only rule that reads a file).  Otherwise the
 * message is not eligible.  dk_policy_decide() returns the rule and sets *line to the
 * handler's log line for the decision (level informational; the caller frees it).
 * It never fails; memory exhaustion ends the process (status 1) through asprintf_safe.
 */
#ifndef DK_POLICY_H
#define DK_POLICY_H

#ifdef __cplusplus
extern "C" {
#endif

/* The policy variables: the chain (and keyseal-milter) set them, the rules read them */
#define DK_ENV_SENDMAIL "PPP_INSIDE_SENDMAIL"
#define DK_ENV_SENDMAIL_VALUE "1" /* the one value that counts */
#define DK_ENV_AUTHORIZED "SMTP_AUTHORIZED"
#define DK_ENV_CLIENT "TCPREMOTEIP"

/* The decision's log lines; keyseal-admin report reads them back from the mail log */
#define DK_LOG_SENDMAIL "Sendmail (" DK_ENV_SENDMAIL "=%s) -> signing"
#define DK_LOG_AUTHORIZED "Authorized user (" DK_ENV_AUTHORIZED "=%s) -> signing"
#define DK_LOG_WHITELISTED "Whitelisted " DK_ENV_CLIENT "=%s -> signing"
#define DK_LOG_NOT_SIGNING                                                                         \
    "Not sendmail, not authorized, " DK_ENV_CLIENT "=%s not whitelisted - not signing"
#define DK_LOG_NO_CLIENT "NULL" /* DK_LOG_NOT_SIGNING's client when DK_ENV_CLIENT is unset */

enum dk_policy_rule {
    DK_POLICY_SKIP = 0,
    DK_POLICY_SENDMAIL = 1,
    DK_POLICY_AUTHORIZED = 2,
    DK_POLICY_WHITELISTED = 3,
};

int dk_policy_decide(char **line);

#ifdef __cplusplus
}
#endif

#endif
