/*
 * dk_sign - one DKIM signature over a spooled message, through libopendkim.
 *
 * keyseal() takes a signing handle of the process's one library instance (made on
 * first use and kept: a process that signs message after message pays for it once;
 * each call sets the fields it signs and oversigns), streams the message (LF line
 * ends repaired to CR LF) and returns a result record that the caller owns and
 * releases with dk_result_free():
 *   status 0: text is the complete "DKIM-Signature: ..." header, every line
 *             ended by "\n" (no CR), continuation lines starting with TAB;
 *   else:     a DKIM_STAT code, text a one-line message or NULL.
 * The stream is neither rewound nor closed.  Not thread-safe.
 */
#ifndef DK_SIGN_H
#define DK_SIGN_H

#include <stdint.h>
#include <stdio.h>

#if defined(__cplusplus) && !defined(_Bool)
#define _Bool bool /* libopendkim's header uses the C spelling */
#endif
#include <dkim.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DK_LOG_DKIM_ERROR "DKIM error: %s" /* the handler's line for a failed signature */

typedef struct dk_result {
    int32_t status;
    char *text;
} dk_result;

dk_result *keyseal(const char *domain, const char *selector, const char *key, FILE *message);

/* One signature of keyseal_each(): a selector, its key text, and a DKIM_SIGN_* algorithm
 * (DKIM_SIGN_DEFAULT: the library's choice, rsa-sha256, as keyseal() signs) */
typedef struct dk_signer {
    const char *selector;
    const char *key;
    int algorithm;
} dk_signer;

/* keyseal_each - a signature per signer over one pass of the message: the fields named in
 * headers (NULL: keyseal()'s Received, From, To, Subject) and those in oversign (NULL or
 * empty: none) once more than they occur.  results[i] answers signers[i] as keyseal()'s
 * result does, each owned by the caller; one signer failing leaves the others whole. */
void keyseal_each(const char *domain, const dk_signer *signers, size_t n,
                  const char *const *headers, const char *const *oversign, FILE *message,
                  dk_result **results);
/* dk_sign_algorithm_for - DKIM_SIGN_ED25519SHA256 for an Ed25519 key's text, else
 * DKIM_SIGN_RSASHA256 (an unreadable key fails later, where any key would).  The answers
 * for the last few key texts are kept, the texts with them, wiped when they go. */
int dk_sign_algorithm_for(const char *key);
/* dk_init - a library instance with flags 0x600 | flags, or NULL with result filled */
DKIM_LIB *dk_init(dk_result *result, unsigned int flags);
/* feed_message - stream the message and finish it; status/text describe the outcome */
dk_result *feed_message(DKIM *dkim, FILE *message, dk_result *result);
/* dk_result_failure - the handler's log line when the result cannot be used as a header
 * ("DKIM error: ..."), or NULL when it can; the caller frees it */
char *dk_result_failure(const dk_result *result);
/* dk_sign_key_failure - 1 when a failed status means the key could not be used (unloadable,
 * too short), which the administrator can mend; 0 for a status about the message */
int dk_sign_key_failure(int32_t status);
dk_result *dk_result_init(void);
void dk_result_free(dk_result *result);

/* The longest header field, in relaxed canonical form with its CRLF, that the library
 * hashes whole: a longer signed field is hashed cut short, and no receiver can verify the
 * signature */
#define DK_SIGN_FIELD_MAX 65534
/* dk_sign_canonical_length - the relaxed canonical length of one header field ("Name:value",
 * folds included, a last line end or none), its CRLF included */
size_t dk_sign_canonical_length(const char *field, size_t length);

#ifdef __cplusplus
}
#endif

#endif
