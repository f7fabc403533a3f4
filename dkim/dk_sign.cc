#include "dkim/dk_sign.h"

#include "util/halyx_log.h"
#include "util/halyx_string.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <openssl/ui.h>

enum {
    FEED_BUFFER = 32768,
    FEED_LIMIT = 32766,     /* leaves room to turn a final LF into CR LF */
    HEADER_NAME_WIDTH = 16, /* strlen("DKIM-Signature: ") */
};

static const unsigned int KEYSEAL_LIBFLAGS = DKIM_LIBFLAGS_ACCEPTDK | DKIM_LIBFLAGS_BADSIGHANDLES;
static const char *SIGNED_HEADERS[] = {"Received", "From", "To", "Subject", nullptr};

/* status_text - the library's text for a status, or "status N" where it has none (15, 17) */
static const char *status_text(DKIM_STAT status)
{
    static char unnamed[32];
    const char *text = dkim_getresultstr(status);
    if (text != nullptr) return text;
    snprintf(unnamed, sizeof(unnamed), "status %d", (int)status);
    return unnamed;
}

dk_result *dk_result_init(void)
{
    dk_result *r = (dk_result *)malloc(sizeof(*r));
    if (r != nullptr) {
        r->status = DKIM_STAT_OK;
        r->text = nullptr;
    }
    return r;
}

char *dk_result_failure(const dk_result *result)
{
    if (result->status != DKIM_STAT_OK)
        return asprintf_safe(DK_LOG_DKIM_ERROR,
                             result->text != nullptr ? result->text : "no description");
    if (result->text == nullptr)
        return asprintf_safe(DK_LOG_DKIM_ERROR, "no signature header was made");
    return nullptr;
}

void dk_result_free(dk_result *result)
{
    free(result->text);
    free(result);
}

DKIM_LIB *dk_init(dk_result *result, unsigned int flags)
{
    DKIM_LIB *lib = dkim_init(nullptr, nullptr);
    if (lib == nullptr) {
        result->status = DKIM_STAT_INTERNAL;
        result->text = asprintf_safe("Unable to initialize DKIM library");
        return nullptr;
    }
    unsigned int word = KEYSEAL_LIBFLAGS | flags;
    dkim_options(lib, DKIM_OP_SETOPT, DKIM_OPTS_FLAGS, &word, sizeof(word));
    return lib;
}

dk_result *feed_message(DKIM *dkim, FILE *message, dk_result *result)
{
    char buf[FEED_BUFFER];
    buf[FEED_BUFFER - 1] = '\0';
    result->text = nullptr;

    while (fgets(buf, FEED_LIMIT, message) != nullptr) {
        /* a NUL ends the piece: the bytes behind it are not fed */
        size_t len = strlen(buf);
        if (len > 0 && buf[len - 1] == '\n' && (len == 1 || buf[len - 2] != '\r')) {
            buf[len - 1] = '\r';
            buf[len++] = '\n';
        }
        result->status = dkim_chunk(dkim, (u_char *)buf, len);
        if (result->status != DKIM_STAT_OK) {
            result->text = asprintf_safe("DKIM Feed: %s", status_text(result->status));
            return result;
        }
    }
    if (ferror(message)) {
        result->status = DKIM_STAT_INTERNAL;
        result->text = asprintf_safe("DKIM Cannot read message from stream");
        return result;
    }
    /* ends the header block too when the message had no separator line */
    (void)dkim_chunk(dkim, nullptr, 0);
    _Bool testkey = false;
    result->status = dkim_eom(dkim, &testkey);
    if (result->status != DKIM_STAT_OK)
        result->text = asprintf_safe("DKIM %s", status_text(result->status));
    return result;
}

/* signature_header - "DKIM-Signature: " + the library's value, re-folded with LF only */
static char *signature_header(unsigned char *value)
{
    char *text = nullptr;
    size_t room = 0;
    char *save = nullptr;
    bool first = true;
    for (char *piece = strtok_r((char *)value, "\r\n", &save); piece != nullptr;
         piece = strtok_r(nullptr, "\r\n", &save), first = false) {
        char *ok = first ? string_append_fmt(&text, &room, "%s: %s\n", "DKIM-Signature", piece)
                         : string_append_fmt(&text, &room, "%s\n", piece);
        if (ok == nullptr) messlog2(1, 1, "Cannot allocate memory: %s", strerror(errno));
    }
    return text;
}

dk_result *keyseal(const char *domain, const char *selector, const char *key, FILE *message)
{
    dk_result *result = dk_result_init();
    if (result == nullptr) messlog2(1, 1, "Cannot allocate memory: %s", strerror(errno));

    DKIM_LIB *lib = dk_init(result, 0);
    if (lib == nullptr) return result;
    /* a passphrase-protected key must fail, not prompt on stderr (the chain's verdict
     * channel) or wait for a terminal: OpenSSL asks its default UI, which answers nothing */
    UI_set_default_method(UI_null());

    DKIM_STAT status = DKIM_STAT_OK;
    DKIM *dkim = dkim_sign(lib, (const unsigned char *)"keyseal()", nullptr, (dkim_sigkey_t)key,
                           (const unsigned char *)selector, (const unsigned char *)domain,
                           DKIM_CANON_RELAXED, DKIM_CANON_RELAXED, DKIM_SIGN_DEFAULT, -1, &status);
    result->status = status;
    if (dkim == nullptr) {
        result->text = asprintf_safe("Unable to initialize DKIM siginig process: %s",
                                     status_text(result->status));
        dkim_close(lib);
        return result;
    }

    dkim_signhdrs(dkim, SIGNED_HEADERS);
    feed_message(dkim, message, result);
    if (result->status == DKIM_STAT_OK) {
        unsigned char *value = nullptr;
        size_t length = 0;
        result->status = dkim_getsighdr_d(dkim, HEADER_NAME_WIDTH, &value, &length);
        if (length != 0) result->text = signature_header(value);
    }
    dkim_free(dkim);
    dkim_close(lib);
    return result;
}

int dk_sign_key_failure(int32_t status)
{
    return status == DKIM_STAT_NORESOURCE || status == DKIM_STAT_SIGGEN ||
           status == DKIM_STAT_KEYFAIL || status == DKIM_STAT_NOKEY;
}
