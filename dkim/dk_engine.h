/*
 * dk_engine - the handler's per-message flow, written once: the signing policy, the
 * spool file, the removal of the sender domain's earlier signatures, selector and key,
 * the signature, and the signed message written out.
 *
 * keyseal runs it on its standard streams; keyseal-admin explain runs it without
 * output (out NULL) to show each decision as it is taken; keyseal-milter runs it in a
 * worker per message, with several selectors, the algorithm the key calls for, a header
 * set of its own, the policy inputs of its job and the message signed where it stands.
 * dk_engine_run() logs exactly the handler's lines through halyx_log and returns the
 * handler's exit status: DK_ENGINE_SIGNED, DK_ENGINE_SKIPPED (in was not read) or
 * DK_ENGINE_FAILED.  The spool file exists only during the call and is removed on every
 * path, a signal of the guard's included (mail_spool_guard).  The observer, when set, is
 * called with each decision; its text is valid only during the call.  Memory exhaustion
 * ends the process (status 1).  Not thread-safe.
 */
#ifndef DK_ENGINE_H
#define DK_ENGINE_H

#include "dkim/dk_policy.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum dk_engine_status {
    DK_ENGINE_SIGNED = 0,
    DK_ENGINE_SKIPPED = 5,
    DK_ENGINE_FAILED = 255,
};

#define DK_SIGNATURE_HEADER "DKIM-Signature:" /* the name the removal walk recognises */

/* The handler's summary lines of a failed run; keyseal-admin report reads them back */
#define DK_LOG_INIT_FAILED "Unable to intialize keyseal mail handler"
#define DK_LOG_SPOOL_FAILED "Unable to save email into the temporary file"
#define DK_LOG_HEADER_FAILED "Unable to modify the email's header"

enum dk_engine_event {
    DK_EVENT_POLICY,   /* number: the dk_policy_rule; text: the decision's log line */
    DK_EVENT_SPOOLED,  /* text: the spool file (none in place) */
    DK_EVENT_CUT,      /* a DKIM-Signature header removed; number: its place among the
                        * message's DKIM-Signature headers (1 = first, any letter case);
                        * text: the whole header as cut, its line ends included */
    DK_EVENT_KEPT,     /* one that stays; number as above, text: its first line */
    DK_EVENT_KEY,      /* text: the key file's path */
    DK_EVENT_SIGNED,   /* text: the new DKIM-Signature header */
    DK_EVENT_FAILED,   /* number: the dk_engine_failure; text: why, as logged */
    DK_EVENT_UNSIGNED, /* a selector gave no signature, after its DK_EVENT_FAILED; number:
                        * the dk_engine_failure; text: DK_SELECTOR_FAILED filled in */
};

/* selector, its key file, why as logged */
#define DK_SELECTOR_FAILED "selector %s (%s): %s"

/* Where a run failed: whether trying the same message again later can succeed */
enum dk_engine_failure {
    DK_FAIL_SPOOL = 1, /* the message could not be spooled or read (a full disk): transient */
    DK_FAIL_HEADER,    /* the removal walk cannot parse the header block: permanent */
    DK_FAIL_KEY,       /* the key is missing, unreadable or unusable: transient */
    DK_FAIL_MESSAGE,   /* the signer refused the message itself (no From:): permanent */
    DK_FAIL_OUTPUT,    /* the signed message could not be written out: transient */
};

/* dk_engine_retry_helps - 1 when a failure of this kind may clear by itself or by the
 * administrator's hand (a key put in place), 0 when the message fails the same way again */
int dk_engine_retry_helps(int failure);

typedef void (*dk_engine_observer)(void *data, int event, int number, const char *text);

typedef struct dk_engine_job {
    const char *from_domain;    /* the envelope sender's domain, used as given */
    const char *context;        /* CONTEXT, for "dkimsel=" */
    FILE *in;                   /* the message */
    FILE *out;                  /* the signed message, or NULL: nothing is written */
    dk_engine_observer observe; /* or NULL */
    void *data;
    /* keyseal-milter's: zero or NULL keeps the handler's own way */
    const char *const *selectors;    /* a signature each (NULL-ended); NULL: CONTEXT's one */
    int by_key_type;                 /* the algorithm the key calls for, not rsa-sha256 alone */
    const char *const *sign_headers; /* NULL-ended; NULL: Received, From, To, Subject */
    const char *const *oversign;     /* signed once more than they occur; NULL: none */
    const dk_policy_inputs *policy;  /* NULL: the process environment's, as the chain sets it */
    const int *guard_signals;        /* 0-ended, for mail_spool_guard; NULL: the handler's */
    int in_place;                    /* out NULL: in is read once and signed as it is read,
                                      * without a spool file */
} dk_engine_job;

int dk_engine_run(const dk_engine_job *job);

#ifdef __cplusplus
}
#endif

#endif
