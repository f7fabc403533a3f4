/*
 * milter_log - keyseal-milter's own log lines (syslog, facility mail, ident
 * keyseal-milter), one home for the milter that writes them and keyseal-admin that reads
 * them back (report, explain --queue-id).  Each per-message line starts with the queue id.
 */
#ifndef KEYSEAL_MILTER_LOG_H
#define KEYSEAL_MILTER_LOG_H

#define MILTER_IDENT "keyseal-milter"

/* not signed: queue id, why; the last part says what became of the message */
#define MILTER_LOG_NOT_SIGNED "%s: not signed: %s; the message passes unsigned"
#define MILTER_LOG_TEMPFAIL "%s: not signed: %s; temporary failure (strict)"
#define MILTER_LOG_PERMANENT                                                                       \
    "%s: not signed: %s; a retry would fail the same way, so the message passes unsigned"
/* queue id, which selector of two gave no signature and why: the engine's
 * DK_SELECTOR_FAILED, "selector S (KEY FILE): why" */
#define MILTER_LOG_PARTIAL "%s: signed, but not with every selector: %s"
#define MILTER_LOG_NULL_SENDER "%s: null sender (a bounce): not given to the handler"
/* queue id, the envelope sender's domain as the client gave it */
#define MILTER_LOG_NOT_HOST                                                                        \
    "%s: sender domain '%s' is not a host name: not given to the handler; the message passes "     \
    "unsigned"
/* queue id, the place among the DKIM-Signature headers */
#define MILTER_LOG_CUT_MISMATCH                                                                    \
    "%s: warning: the handler cut DKIM-Signature header %d, which the mail server does not hold "  \
    "as cut: left in place"
/* queue id, d=, the From: header's domain */
#define MILTER_LOG_MISALIGNED "%s: signed d=%s but From: is %s: DMARC will not align"
#define MILTER_LOG_NO_FROM "%s: signed d=%s but the message has no From: address"
#define MILTER_LOG_MANY_FROM "%s: signed d=%s but the message has %d From: addresses"
/* queue id, the first long line ("header NAME:" or "body line N"), its length, the limit */
#define MILTER_LOG_LONG_LINE                                                                       \
    "%s: warning: %s is %d characters long, more than Postfix's SMTP line limit of %d: Postfix "   \
    "will break it after signing and the signature will not verify at the receiver"
/* queue id, how many lines, the limit, the first of them as above */
#define MILTER_LOG_FOLDED                                                                          \
    "%s: lines folded as Postfix's SMTP client would, before signing: %d longer than %d "          \
    "characters, the first %s"
/* the peer's address */
#define MILTER_LOG_REFUSED "refused a connection from %s: not among clients"
/* the descriptor */
#define MILTER_LOG_TOO_MANY "refused a connection on descriptor %d: more open files than followed"
#define MILTER_LOG_MALFORMED                                                                       \
    "ended a connection that sent a malformed macro packet (names and values unpaired)"
/* pid, how it ended */
#define MILTER_LOG_HELPER_ENDED "the signing helper (pid %d) ended (%s); starting a new one"
/* libmilter's status */
#define MILTER_LOG_LIBRARY_ENDED                                                                   \
    "the milter library's loop ended by itself (status %d); exiting so that the service restarts"
/* pid, how many helpers were started after the first */
#define MILTER_LOG_HELPER_STARTED "started a new signing helper (pid %d; restart %u)"
/* why (strerror) */
#define MILTER_LOG_HELPER_FAILED                                                                   \
    "cannot start a new signing helper: %s; exiting so that the service restarts"
#define MILTER_LOG_RELOADED "reloaded %s"
/* "FILE:LINE: why" */
#define MILTER_LOG_RELOAD_FAILED "%s; keeping the running settings"
/* the metrics address; and why it cannot be served */
#define MILTER_LOG_METRICS "serving metrics at http://%s/metrics"
#define MILTER_LOG_METRICS_FAILED "cannot serve metrics at %s: %s; signing goes on without them"
#define MILTER_LOG_STOPPING "stopping: %d messages in flight"
#define MILTER_LOG_STOPPED "stopped"

#endif
