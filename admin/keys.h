/*
 * keys - signing keys as the handler reads them: read, inspected, generated, written with
 * the mode and group the handler's readers need, and shown as the TXT record to publish
 * (`keyseal-admin keygen` and `keyseal-admin dns`, which prints a key's record from the key
 * alone and asks no DNS server, so it lives here, beside the record's making).
 *
 * Keys are owned through Pkey (a unique_ptr freeing with EVP_PKEY_free).  Functions throw
 * Problem when a key cannot be made or written, Usage for a bad name; inspect_key reports
 * through Findings instead.  Commands return the exit status.
 */
#ifndef KEYSEAL_ADMIN_KEYS_H
#define KEYSEAL_ADMIN_KEYS_H

#include "admin/admin.h"

#include <memory>
#include <openssl/evp.h>
#include <string>
#include <sys/types.h>

namespace keyseal_admin
{

struct PkeyFree {
    void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

/* read_key_text - the key file as the handler reads it; a DK_KEY_* status */
int read_key_text(const std::string &path, std::string &text);
/* load_key - a signing key (RSA or Ed25519) from PEM or bare base64 DER text, as the
 * handler's library takes it, or null; never prompts, and wipes text */
Pkey load_key(std::string &text);
/* key_type - the key's k= in a DKIM key record: "rsa" or "ed25519" */
std::string key_type(EVP_PKEY *key);
/* key_description - "RSA key of 2048 bits", "Ed25519 key" */
std::string key_description(EVP_PKEY *key);
/* generate_key - a new key of type ("rsa" with bits, or "ed25519"); throws Problem */
Pkey generate_key(const std::string &type, int bits);
/* public_key_base64 - the record's p=: the DER public key (RSA), the raw 32 bytes (Ed25519) */
std::string public_key_base64(EVP_PKEY *key);
/* key_pem - the private key as PEM, unencrypted; throws Problem */
std::string key_pem(EVP_PKEY *key);
/* dns_record - the zone-file lines of the key's TXT record, strings of at most 255 bytes */
std::string dns_record(const std::string &domain, const std::string &selector, EVP_PKEY *key);
/* inspect_key - findings on the key file as the handler would read it; the key or null */
Pkey inspect_key(const std::string &path, Findings &report);
/* milter_installed - keyseal-milter's settings or binary (beside this program) exist */
bool milter_installed();
/* ED25519_NOTE - what an Ed25519 key means for the handler chain */
extern const char ED25519_NOTE[];
/* write_key - PEM through a temporary file beside path and a rename, mode 0640, group gid */
void write_key(EVP_PKEY *key, const std::string &path, gid_t gid);
/* key_group - the key readers' group: group by name or number, or the default ("") */
gid_t key_group(const std::string &group);
/* keys_dir_for - DK_KEYS_DIR/domain, made (0750, group gid) when missing */
std::string keys_dir_for(const std::string &domain, gid_t gid);
/* keep_aside - a hard link to dir/selector as dir/.SELECTOR.WHAT-STAMP, a name no selector
 * can have; "" when there is no such key */
std::string keep_aside(const std::string &dir, const std::string &selector, const char *what);
/* new_key - a new key of type (bits for RSA) written for domain and selector, an existing
 * one kept aside first with force; written: "PATH (WHAT, mode 0640, group G)".  Throws
 * Problem, the old key left in place */
Pkey new_key(const std::string &domain, const std::string &selector, const std::string &type,
             int bits, gid_t gid, bool force, std::string &written);
/* cmd_keygen - a new key for domain and selector, its record printed */
int cmd_keygen(std::string domain, const std::string &selector, const std::string &type, int bits,
               const std::string &group, bool force);
/* cmd_dns - the record of an existing key */
int cmd_dns(std::string domain, const std::string &selector);

} // namespace keyseal_admin

#endif
