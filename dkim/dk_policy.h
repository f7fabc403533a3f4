/*
 * dk_policy - the signing policy: may this message be signed, and by which rule.
 *
 * Rules, tested in this order on the policy inputs, the first that holds deciding:
 * PPP_INSIDE_SENDMAIL exactly "1"; SMTP_AUTHORIZED not empty; TCPREMOTEIP not empty and on
 * the signing whitelist (the only rule that reads a file).  Otherwise the message is not
 * eligible.  The handler takes the inputs from its process environment, where the chain
 * sets them; keyseal-milter's worker fills them from its job.  dk_policy_decide() returns
 * the rule and sets *line to the handler's log line for the decision (level informational;
 * the caller frees it).  It never fails; memory exhaustion ends the process (status 1)
 * through asprintf_safe.
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

/* The inputs of the rules: each variable's value, or NULL when it is not set.  The
 * pointers are borrowed: valid as long as what they point into. */
typedef struct dk_policy_inputs {
    const char *sendmail;   /* DK_ENV_SENDMAIL */
    const char *authorized; /* DK_ENV_AUTHORIZED */
    const char *client;     /* DK_ENV_CLIENT */
} dk_policy_inputs;

/* dk_policy_from_env - the inputs from the process environment (pointers into it: valid
 * until the variable changes) */
void dk_policy_from_env(dk_policy_inputs *in);
/* dk_policy_decide - the rule for these inputs; NULL: the process environment's */
int dk_policy_decide(const dk_policy_inputs *in, char **line);

#ifdef __cplusplus
}
#endif

#endif
