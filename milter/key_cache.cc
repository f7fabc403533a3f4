/*
 * key_cache - keyseal-milter's workers keep the keys they have parsed, by their exact text.
 *
 * Parsing a PEM key costs more than the signature it makes (OpenSSL 3's decoders), and a
 * worker signs with the same few keys message after message.  libopendkim takes a key
 * only as text and parses it with PEM_read_bio_PrivateKey() at every signature; this
 * file, linked into keyseal-milter alone, answers that call from the keys already
 * parsed.  The same bytes are the same key; a changed file gives other bytes and a fresh
 * parse.  An encrypted key is no key here: nothing ever prompts.  Single-threaded: only a
 * worker signs, and only a worker keeps keys (key_cache_keep()).  The helper's warm-up
 * comes through here too, loading the decoders for every worker it forks, but keeps
 * nothing: its throwaway key would only take a worker's place for a real one.
 */
#include "milter/key_cache.h"

#include <cstring>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string>
#include <vector>

namespace
{

/* a handful is kept, the oldest going first */
struct ParsedKey {
    std::string text;
    EVP_PKEY *key;
};
std::vector<ParsedKey> parsed_keys; /* the worker's one thread alone uses it */
bool keeping = false;
constexpr size_t PARSED_KEYS_MAX = 8;

/* parse_key - a PEM private key without a passphrase: PKCS#8 or PKCS#1 RSA, or NULL.  No
 * prompt is ever shown: an encrypted key is no key here. */
EVP_PKEY *parse_key(BIO *bio)
{
    char *name = nullptr, *header = nullptr;
    unsigned char *der = nullptr;
    long len = 0;
    if (PEM_read_bio(bio, &name, &header, &der, &len) != 1) return nullptr;
    EVP_PKEY *key = nullptr;
    const unsigned char *p = der;
    if (header[0] == '\0' && strcmp(name, "PRIVATE KEY") == 0) {
        PKCS8_PRIV_KEY_INFO *p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, len);
        if (p8 != nullptr) key = EVP_PKCS82PKEY(p8);
        PKCS8_PRIV_KEY_INFO_free(p8);
    } else if (header[0] == '\0' && strcmp(name, "RSA PRIVATE KEY") == 0) {
        key = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, len);
    }
    OPENSSL_cleanse(der, (size_t)len);
    OPENSSL_free(der);
    OPENSSL_free(name);
    OPENSSL_free(header);
    return key;
}

} // namespace

void key_cache_keep()
{
    keeping = true;
}

/* PEM_read_bio_PrivateKey - the call libopendkim makes for a PEM key at every signature,
 * answered from the worker's parsed keys.  Only keyseal-milter's worker defines it; the
 * handler and keyseal-admin parse as the library does. */
extern "C" EVP_PKEY *PEM_read_bio_PrivateKey(BIO *bio, EVP_PKEY **x, pem_password_cb *, void *)
{
    char *data = nullptr;
    long len = BIO_method_type(bio) == BIO_TYPE_MEM ? BIO_get_mem_data(bio, &data) : 0;
    std::string text = len > 0 ? std::string(data, (size_t)len) : std::string();
    EVP_PKEY *key = nullptr;
    for (const ParsedKey &k : parsed_keys)
        if (!text.empty() && k.text == text && EVP_PKEY_up_ref(k.key) == 1) key = k.key;
    if (key == nullptr && (key = parse_key(bio)) != nullptr && keeping && !text.empty() &&
        EVP_PKEY_up_ref(key) == 1) {
        if (parsed_keys.size() == PARSED_KEYS_MAX) {
            OPENSSL_cleanse(parsed_keys.front().text.data(), parsed_keys.front().text.size());
            EVP_PKEY_free(parsed_keys.front().key);
            parsed_keys.erase(parsed_keys.begin());
        }
        parsed_keys.push_back({text, key});
    }
    OPENSSL_cleanse(text.data(), text.size());
    if (x != nullptr) {
        EVP_PKEY_free(*x);
        *x = key;
    }
    return key;
}
