/*
 * dk_key - where a domain's private key lives and how the handler reads it: the one
 * home of the rules that the handler and keyseal-admin must agree on.
 *
 * dk_selector_from_context() and dk_key_path() return heap strings the caller frees;
 * they never return NULL (asprintf_safe ends the process with status 1 when memory
 * runs out).  dk_key_read() returns DK_KEY_OK or a DK_KEY_* failure and logs nothing:
 * dk_key_failure() gives the handler's log line for a failure (caller frees).
 * The key buffer is the caller's, DK_KEY_BUFFER + 1 bytes; it is NUL-terminated on
 * success and the caller wipes it.
 */
#ifndef DK_KEY_H
#define DK_KEY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DK_KEYS_DIR "/etc/domainkeys"
#define DK_KEY_PATH_FORMAT DK_KEYS_DIR "/%s/%s" /* domain, selector: used as given */
#define DK_DEFAULT_SELECTOR "default"
#define DK_CONTEXT_SELECTOR "dkimsel="
#define DK_KEY_BUFFER 9216 /* a key file must be shorter than this */

#define DK_LOG_NO_KEY "cannot get sender domain key from %s" /* the key path */
#define DK_LOG_KEY_TOO_BIG "private key buffer is not big enough"

enum dk_key_status {
    DK_KEY_OK = 0,
    DK_KEY_CANNOT_OPEN = -1, /* missing, unreadable, or a FIFO, device or socket */
    DK_KEY_TOO_BIG = -2,     /* DK_KEY_BUFFER bytes or more */
};

/* dk_selector_from_context - "dkimsel=" anywhere in context, up to ',' or the end;
 * "default" when absent.  May be empty. */
char *dk_selector_from_context(const char *context);
char *dk_key_path(const char *domain, const char *selector);
/* dk_key_read - the key file into key; *length gets the bytes read on success */
int dk_key_read(const char *path, char *key, size_t *length);
char *dk_key_failure(int status, const char *path);

/* dk_selector_problem - why name cannot be a selector that a CONTEXT selects and the key
 * path holds as one component ("it holds '/'", ...), or NULL when it can.  Static text. */
const char *dk_selector_problem(const char *name);
/* dk_domain_canonical - a sender domain as mail servers compare it: lower case, one
 * trailing dot dropped; NULL when it is not a host name (letters, digits, hyphens and
 * dots) or an address literal ("[192.0.2.1]", "[IPv6:2001:db8::1]").  Caller frees. */
char *dk_domain_canonical(const char *domain);

#ifdef __cplusplus
}
#endif

#endif
