#include "admin/keys.h"

#include "admin/files.h"
#include "admin/names.h"
#include "milter/milter_conf.h"
#include "admin/dns_update.h"

#include "dkim/dk_key.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

enum { MIN_BITS = 1024, GOOD_BITS = 2048 };

/* no_passphrase - a protected key must fail here, as it fails in the handler */
int no_passphrase(char *, int, int, void *)
{
    return -1;
}

struct BioFree {
    void operator()(BIO *b) const { BIO_free(b); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

std::string bio_text(BIO *b)
{
    char *data = nullptr;
    long n = BIO_get_mem_data(b, &data);
    return std::string(data, n > 0 ? (size_t)n : 0);
}

/* as_root - the next step when a file operation was refused */
std::string as_root()
{
    return errno == EACCES || errno == EPERM ? ": run keyseal-admin as root" : "";
}

} // namespace

gid_t key_group(const std::string &group)
{
    if (group.empty()) {
        /* the readers: keyseal-milter's group where it exists, else the keys directory's
         * (root's when that does not exist yet) */
        if (struct group *g = getgrnam(MILTER_USER)) return g->gr_gid;
        struct stat st;
        return stat(DK_KEYS_DIR, &st) == 0 ? st.st_gid : 0;
    }
    struct group *g = getgrnam(group.c_str());
    if (g != nullptr) return g->gr_gid;
    char *end = nullptr;
    unsigned long id = strtoul(group.c_str(), &end, 10);
    if (end == group.c_str() || *end != '\0') throw Usage("no such group: " + group);
    return (gid_t)id;
}

/* make_dir - a directory of mode with the key readers' group, unless it exists */
static void make_dir(const std::string &dir, mode_t mode, gid_t gid)
{
    if (mkdir(dir.c_str(), mode) != 0) {
        if (errno == EEXIST) return;
        throw Problem("cannot create directory " + errno_text(dir) + as_root());
    }
    if (chmod(dir.c_str(), mode) != 0 || chown(dir.c_str(), (uid_t)-1, gid) != 0)
        throw Problem("cannot set owner and mode of " + errno_text(dir) + as_root());
}

/* write_key - never half a key: a reader sees the old file or the whole new one */
void write_key(EVP_PKEY *key, const std::string &path, gid_t gid)
{
    std::string tmp = path.substr(0, path.rfind('/') + 1) + ".keygen.XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) throw Problem("cannot create a file in " + errno_text(tmp) + as_root());
    FILE *f = fdopen(fd, "w");
    bool ok = f != nullptr && fchown(fd, (uid_t)-1, gid) == 0 && fchmod(fd, 0640) == 0 &&
              PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
              fflush(f) == 0 && fsync(fd) == 0;
    int err = errno;
    if (f != nullptr ? fclose(f) != 0 : close(fd) != 0) ok = false;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) return;
    err = errno != 0 ? errno : err;
    unlink(tmp.c_str());
    errno = err;
    throw Problem("cannot write the key " + errno_text(path) + as_root());
}

std::string keep_aside(const std::string &dir, const std::string &selector, const char *what)
{
    std::string path = dir + "/" + selector;
    if (access(path.c_str(), F_OK) != 0) return "";
    std::string base = dir + "/." + selector + "." + what + "-" + file_stamp(), kept = base;
    for (int n = 1; link(path.c_str(), kept.c_str()) != 0; n++) {
        if (errno != EEXIST || n > 99)
            throw Problem("cannot keep the key as " + errno_text(kept) + "; nothing was changed");
        kept = base + "-" + std::to_string(n);
    }
    return kept;
}

std::string keys_dir_for(const std::string &domain, gid_t gid)
{
    std::string dir = std::string(DK_KEYS_DIR) + "/" + domain;
    make_dir(DK_KEYS_DIR, 0755, 0);
    make_dir(dir, 0750, gid);
    return dir;
}

int read_key_text(const std::string &path, std::string &text)
{
    text.assign(DK_KEY_BUFFER + 1, '\0');
    size_t length = 0;
    int status = dk_key_read(path.c_str(), text.data(), &length);
    text.resize(status == DK_KEY_OK ? length : 0);
    return status;
}

/* load_private_key - any private key from PEM or bare base64 DER text, or null */
static Pkey load_private_key(const std::string &text)
{
    if (text.rfind("-----", 0) == 0) {
        Bio in(BIO_new_mem_buf(text.data(), (int)text.size()));
        return Pkey(PEM_read_bio_PrivateKey(in.get(), nullptr, no_passphrase, nullptr));
    }
    /* bare base64 DER: white space between the lines is allowed */
    std::string b64;
    for (char c : text)
        if (!isspace((unsigned char)c)) b64 += c;
    std::string der(b64.size(), '\0');
    int n = EVP_DecodeBlock((unsigned char *)der.data(), (const unsigned char *)b64.data(),
                            (int)b64.size());
    if (n <= 0) return nullptr;
    const unsigned char *p = (const unsigned char *)der.data();
    Pkey key(d2i_AutoPrivateKey(nullptr, &p, n));
    OPENSSL_cleanse(der.data(), der.size());
    return key;
}

Pkey load_key(std::string &text)
{
    Pkey key = load_private_key(text);
    OPENSSL_cleanse(text.data(), text.size());
    if (!key) return nullptr;
    int id = EVP_PKEY_get_base_id(key.get());
    return id == EVP_PKEY_RSA || id == EVP_PKEY_ED25519 ? std::move(key) : nullptr;
}

std::string key_type(EVP_PKEY *key)
{
    return EVP_PKEY_get_base_id(key) == EVP_PKEY_ED25519 ? "ed25519" : "rsa";
}

std::string key_description(EVP_PKEY *key)
{
    if (key_type(key) == "ed25519") return "Ed25519 key";
    return "RSA key of " + std::to_string(EVP_PKEY_get_bits(key)) + " bits";
}

const char ED25519_NOTE[] =
    "an Ed25519 key signs through keyseal-milter only (ed25519-sha256): the handler "
    "chain's keyseal signs rsa-sha256 and fails with it";

bool milter_installed()
{
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string beside = n > 0 ? std::string(self, (size_t)n) : "";
    beside = beside.substr(0, beside.rfind('/') + 1) + "keyseal-milter";
    return access(MILTER_CONF_PATH, F_OK) == 0 || (n > 0 && access(beside.c_str(), X_OK) == 0);
}

Pkey generate_key(const std::string &type, int bits)
{
    Pkey key(type == "ed25519" ? EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")
                               : EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", (size_t)bits));
    if (!key)
        throw Problem(type == "ed25519"
                          ? "cannot generate an Ed25519 key"
                          : "cannot generate an RSA key of " + std::to_string(bits) + " bits");
    return key;
}

std::string public_key_base64(EVP_PKEY *key)
{
    std::string raw;
    if (key_type(key) == "ed25519") {
        /* an Ed25519 record carries the bare public key, not a SubjectPublicKeyInfo */
        size_t n = 32;
        raw.resize(n);
        if (EVP_PKEY_get_raw_public_key(key, (unsigned char *)raw.data(), &n) != 1)
            throw Problem("cannot encode the public key");
        raw.resize(n);
    } else {
        unsigned char *der = nullptr;
        int n = i2d_PUBKEY(key, &der);
        if (n <= 0) throw Problem("cannot encode the public key");
        raw.assign((const char *)der, (size_t)n);
        OPENSSL_free(der);
    }
    std::string b64(4 * (raw.size() + 2) / 3 + 1, '\0');
    b64.resize((size_t)EVP_EncodeBlock((unsigned char *)b64.data(),
                                       (const unsigned char *)raw.data(), (int)raw.size()));
    return b64;
}

std::string key_pem(EVP_PKEY *key)
{
    Bio out(BIO_new(BIO_s_secmem()));
    if (!out ||
        PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        throw Problem("cannot encode the private key");
    return bio_text(out.get());
}

std::string dns_record(const std::string &domain, const std::string &selector, EVP_PKEY *key)
{
    /* the strings an update publishes, so that what is printed and published are one */
    auto strings = dkim_record_strings(key);
    std::string out = selector + "._domainkey." + domain + ". IN TXT ( \"" + strings[0] + "\"";
    std::string whole = strings[0];
    for (size_t i = 1; i < strings.size(); i++) {
        out += "\n\t\"" + strings[i] + "\"";
        whole += strings[i];
    }
    out += " )\n";
    out += "; the same value as one string, for web-based DNS editors:\n";
    out += "; " + whole + "\n";
    return out;
}

Pkey inspect_key(const std::string &path, Findings &report)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        report.error("key file " + errno_text(path));
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        report.error("key file " + path + " is not a regular file");
        return nullptr;
    }
    std::string key;
    int status = read_key_text(path, key);
    if (status != DK_KEY_OK) {
        report.error("key file " + path + " cannot be used: " +
                     (status == DK_KEY_TOO_BIG
                          ? "it must be at most " + std::to_string(DK_KEY_BUFFER - 1) + " bytes"
                          : std::string(strerror(errno))));
        return nullptr;
    }
    report.ok("key file " + path + " (" + std::to_string(key.size()) + " bytes)");
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        report.error("key file " + path + " is writable by group or others: chmod 0640");
    else if (st.st_mode & S_IROTH)
        report.warning("key file " + path + " is readable by others: chmod 0640");
    Pkey pkey = load_key(key);
    if (!pkey) {
        report.error("key file " + path +
                     " does not hold an RSA or Ed25519 private key (PEM or base64 DER)");
        return nullptr;
    }
    std::string size = key_description(pkey.get());
    if (key_type(pkey.get()) == "ed25519") {
        report.ok(size);
        report.note(ED25519_NOTE);
        return pkey;
    }
    int bits = EVP_PKEY_get_bits(pkey.get());
    if (bits < MIN_BITS)
        report.error(size + ": the signer refuses keys below 1024 bits");
    else if (bits < GOOD_BITS)
        report.warning(size + ": 2048 bits or more is recommended");
    else
        report.ok(size);
    return bits < MIN_BITS ? nullptr : std::move(pkey);
}

Pkey new_key(const std::string &domain, const std::string &selector, const std::string &type,
             int bits, gid_t gid, bool force, std::string &written)
{
    std::string path = key_path(domain, selector);
    Pkey key = generate_key(type, bits);
    std::string dir = keys_dir_for(domain, gid);
    std::string kept = force ? keep_aside(dir, selector, "replaced") : "";
    try {
        write_key(key.get(), path, gid);
    } catch (const Problem &) {
        if (!kept.empty()) unlink(kept.c_str()); /* the old key is still in place */
        throw;
    }
    struct group *g = getgrgid(gid);
    if (!kept.empty())
        fprintf(stderr, "kept the replaced key as %s (mv it back to undo)\n", kept.c_str());
    std::string what = type == "ed25519" ? "Ed25519" : "RSA " + std::to_string(bits) + " bits";
    written = path + " (" + what + ", mode 0640, group " +
              (g != nullptr ? g->gr_name : std::to_string(gid)) + ")";
    return key;
}

int cmd_keygen(std::string domain, const std::string &selector, const std::string &type, int bits,
               const std::string &group, bool force)
{
    check_names(domain, selector);
    gid_t gid = key_group(group);
    std::string path = key_path(domain, selector);
    if (!force && access(path.c_str(), F_OK) == 0)
        throw Problem("a key exists already: " + path + " (--force replaces it)");

    std::string written;
    Pkey key = new_key(domain, selector, type, bits, gid, force, written);
    fprintf(stderr, "wrote %s; publish this record:\n", written.c_str());
    if (type == "ed25519") fprintf(stderr, "note: %s\n", ED25519_NOTE);
    fputs(dns_record(domain, selector, key.get()).c_str(), stdout);
    return EXIT_OK;
}

int cmd_dns(std::string domain, const std::string &selector)
{
    check_names(domain, selector);
    std::string path = key_path(domain, selector), key;
    int status = read_key_text(path, key);
    std::string remake = "'keyseal-admin keygen " + domain + " --selector " + selector;
    if (status != DK_KEY_OK)
        throw Problem(
            status == DK_KEY_TOO_BIG
                ? path + ": larger than a key file may be (9215 bytes): replace it with " + remake +
                      " --force'"
                : "cannot read the key " + errno_text(path) + ": make one with " + remake + "'");
    Pkey pkey = load_key(key);
    if (!pkey)
        throw Problem(path +
                      " does not hold an RSA or Ed25519 private key (PEM or base64 DER): "
                      "replace it with " +
                      remake + " --force'");
    fputs(dns_record(domain, selector, pkey.get()).c_str(), stdout);
    return EXIT_OK;
}

} // namespace keyseal_admin
