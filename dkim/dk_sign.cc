#include "dkim/dk_sign.h"

#include "util/halyx_log.h"
#include "util/halyx_string.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ui.h>
#include <openssl/x509.h>
#include <string>
#include <utility>
#include <vector>

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

/* feed_each - the message once into every handle; each result says how its handle fared.
 * A handle whose chunk is refused drops out (its handle set to NULL); the others go on. */
static void feed_each(DKIM **handles, dk_result **results, size_t n, FILE *message)
{
    char buf[FEED_BUFFER];
    buf[FEED_BUFFER - 1] = '\0';
    size_t live = 0;
    for (size_t i = 0; i < n; i++) {
        if (handles[i] == nullptr) continue; /* its result says already why */
        results[i]->text = nullptr;
        live++;
    }

    while (live > 0 && fgets(buf, FEED_LIMIT, message) != nullptr) {
        /* a NUL ends the piece: the bytes behind it are not fed */
        size_t len = strlen(buf);
        if (len > 0 && buf[len - 1] == '\n' && (len == 1 || buf[len - 2] != '\r')) {
            buf[len - 1] = '\r';
            buf[len++] = '\n';
        }
        for (size_t i = 0; i < n; i++) {
            if (handles[i] == nullptr) continue;
            results[i]->status = dkim_chunk(handles[i], (u_char *)buf, len);
            if (results[i]->status != DKIM_STAT_OK) {
                results[i]->text = asprintf_safe("DKIM Feed: %s", status_text(results[i]->status));
                handles[i] = nullptr, live--;
            }
        }
    }
    for (size_t i = 0; i < n; i++) {
        if (handles[i] == nullptr) continue;
        if (ferror(message)) {
            results[i]->status = DKIM_STAT_INTERNAL;
            results[i]->text = asprintf_safe("DKIM Cannot read message from stream");
            continue;
        }
        /* ends the header block too when the message had no separator line */
        (void)dkim_chunk(handles[i], nullptr, 0);
        _Bool testkey = false;
        results[i]->status = dkim_eom(handles[i], &testkey);
        if (results[i]->status != DKIM_STAT_OK)
            results[i]->text = asprintf_safe("DKIM %s", status_text(results[i]->status));
    }
}

dk_result *feed_message(DKIM *dkim, FILE *message, dk_result *result)
{
    feed_each(&dkim, &result, 1, message);
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
    dk_signer one = {selector, key, DKIM_SIGN_DEFAULT};
    dk_result *result;
    keyseal_each(domain, &one, 1, nullptr, nullptr, message, &result);
    return result;
}

int dk_sign_key_failure(int32_t status)
{
    return status == DKIM_STAT_NORESOURCE || status == DKIM_STAT_SIGGEN ||
           status == DKIM_STAT_KEYFAIL || status == DKIM_STAT_NOKEY;
}

/* algorithm_of - the key's algorithm from its PKCS#8 wrapper alone: no key is built, which
 * would cost as much as the signature.  PKCS#1 ("RSA PRIVATE KEY", or bare DER "MII...") is
 * RSA by its very form. */
static int algorithm_of(const char *key)
{
    BIO *bio = BIO_new_mem_buf(key, -1);
    PKCS8_PRIV_KEY_INFO *p8 =
        bio != nullptr ? PEM_read_bio_PKCS8_PRIV_KEY_INFO(bio, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(bio);
    if (p8 == nullptr && strncmp(key, "-----", 5) != 0) {
        size_t len = strlen(key);
        std::vector<unsigned char> der(len);
        int n = EVP_DecodeBlock(der.data(), (const unsigned char *)key, (int)len);
        const unsigned char *p = der.data();
        if (n > 0) p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, n);
        OPENSSL_cleanse(der.data(), der.size());
    }
    const ASN1_OBJECT *object = nullptr;
    int nid = NID_undef;
    if (p8 != nullptr && PKCS8_pkey_get0(&object, nullptr, nullptr, nullptr, p8) == 1)
        nid = OBJ_obj2nid(object);
    PKCS8_PRIV_KEY_INFO_free(p8);
    ERR_clear_error(); /* a form it is not leaves errors that are no one's business */
    return nid == NID_ED25519 ? DKIM_SIGN_ED25519SHA256 : DKIM_SIGN_RSASHA256;
}

int dk_sign_algorithm_for(const char *key)
{
    /* a worker meets the same few keys message after message: each text is decoded once.
     * The same bytes are the same key; an edited key file gives other bytes. */
    struct Known {
        std::string text;
        int algorithm;
    };
    static std::vector<Known> *known = new std::vector<Known>; /* never torn down */
    static const size_t KNOWN_MAX = 8;
    for (const Known &k : *known)
        if (k.text == key) return k.algorithm;
    int algorithm = algorithm_of(key);
    if (known->size() == KNOWN_MAX) {
        OPENSSL_cleanse(known->front().text.data(), known->front().text.size());
        known->erase(known->begin());
    }
    known->push_back({key, algorithm});
    return algorithm;
}

namespace
{

/* FieldList - a NULL-ended list of field names as last set on the library, in storage of
 * its own; valid false when nothing is known to be set */
struct FieldList {
    std::vector<std::string> names;
    std::vector<const char *> list;
    bool valid = false;

    bool same(const char *const *other) const
    {
        if (!valid) return false;
        size_t i = 0;
        for (; other[i] != nullptr; i++)
            if (i >= names.size() || names[i] != other[i]) return false;
        return i == names.size();
    }
};

/* Library - the process's one library instance and the field lists set on it.  Making an
 * instance re-reads the resolver's configuration, and a header list compiles to a regular
 * expression: a process that signs message after message pays both once. */
struct Library {
    DKIM_LIB *lib = nullptr;
    FieldList signed_fields, oversigned;
};

Library &library()
{
    static Library *kept = new Library; /* lives as long as the process: never torn down */
    return *kept;
}

/* set_fields - put the list (NULL: none) on the library as option, unless it is there
 * already; 0 when it is set, -1 when the library refused it (nothing is then known) */
int set_fields(DKIM_LIB *lib, dkim_opts_t option, FieldList &kept, const char *const *list)
{
    static const char *const nothing[] = {nullptr};
    if (kept.same(list != nullptr ? list : nothing)) return 0;
    FieldList next;
    for (const char *const *n = list; n != nullptr && *n != nullptr; n++)
        next.names.push_back(*n);
    for (const std::string &name : next.names)
        next.list.push_back(name.c_str());
    next.list.push_back(nullptr);
    kept.valid = false;
    void *data = list != nullptr ? (void *)next.list.data() : nullptr;
    if (dkim_options(lib, DKIM_OP_SETOPT, option, data, sizeof(data)) != DKIM_STAT_OK) return -1;
    next.valid = true;
    kept = std::move(next);
    return 0;
}

} // namespace

void keyseal_each(const char *domain, const dk_signer *signers, size_t n,
                  const char *const *headers, const char *const *oversign, FILE *message,
                  dk_result **results)
{
    for (size_t i = 0; i < n; i++) {
        results[i] = dk_result_init();
        if (results[i] == nullptr) messlog2(1, 1, "Cannot allocate memory: %s", strerror(errno));
    }
    Library &kept = library();
    if (kept.lib == nullptr) kept.lib = dk_init(results[0], 0);
    DKIM_LIB *lib = kept.lib;
    if (lib == nullptr) {
        for (size_t i = 1; i < n; i++)
            results[i]->status = results[0]->status,
            results[i]->text = asprintf_safe("%s", results[0]->text);
        return;
    }
    /* a passphrase-protected key must fail, not prompt on stderr (the chain's verdict
     * channel) or wait for a terminal: OpenSSL asks its default UI, which answers nothing */
    UI_set_default_method(UI_null());
    /* an earlier call's oversigned fields are no business of this one */
    bool oversigning = oversign != nullptr && oversign[0] != nullptr;
    (void)set_fields(lib, DKIM_OPTS_OVERSIGNHDRS, kept.oversigned,
                     oversigning ? oversign : nullptr);
    /* the same regular expression as on each handle, made once for the library; a list
     * the library will not take there is left to each handle, where it fares as ever */
    const char *const *fields = headers != nullptr ? headers : SIGNED_HEADERS;
    bool per_handle = set_fields(lib, DKIM_OPTS_SIGNHDRS, kept.signed_fields, fields) != 0;
    std::vector<DKIM *> handles(n);
    for (size_t i = 0; i < n; i++) {
        DKIM_STAT status = DKIM_STAT_OK;
        handles[i] = dkim_sign(
            lib, (const unsigned char *)"keyseal()", nullptr, (dkim_sigkey_t)signers[i].key,
            (const unsigned char *)signers[i].selector, (const unsigned char *)domain,
            DKIM_CANON_RELAXED, DKIM_CANON_RELAXED, signers[i].algorithm, -1, &status);
        results[i]->status = status;
        if (handles[i] == nullptr) {
            results[i]->text =
                asprintf_safe("Unable to initialize DKIM siginig process: %s", status_text(status));
            continue;
        }
        if (per_handle) dkim_signhdrs(handles[i], (const char **)fields);
    }
    std::vector<DKIM *> fed = handles; /* the feed drops a handle the library refused */
    feed_each(fed.data(), results, n, message);
    for (size_t i = 0; i < n; i++) {
        if (handles[i] == nullptr) continue;
        if (fed[i] != nullptr && results[i]->status == DKIM_STAT_OK) {
            unsigned char *value = nullptr;
            size_t length = 0;
            results[i]->status = dkim_getsighdr_d(handles[i], HEADER_NAME_WIDTH, &value, &length);
            if (length != 0) results[i]->text = signature_header(value);
        }
        dkim_free(handles[i]);
    }
}

size_t dk_sign_canonical_length(const char *field, size_t length)
{
    const char *colon = (const char *)memchr(field, ':', length);
    if (colon == nullptr) return length + 2;
    size_t name = (size_t)(colon - field);
    while (name > 0 && (field[name - 1] == ' ' || field[name - 1] == '\t'))
        name--;
    /* the value unfolded, each run of blanks one space, none at either end */
    size_t value = 0;
    bool blank = false;
    for (const char *p = colon + 1; p < field + length; p++) {
        if (*p == '\r' || *p == '\n') continue;
        if (*p == ' ' || *p == '\t') {
            blank = true;
            continue;
        }
        if (blank && value > 0) value++;
        blank = false;
        value++;
    }
    return name + 1 + value + 2;
}
