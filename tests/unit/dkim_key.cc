#include "dkim_key.h"

#include "test_util.h"

#include <map>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <stdexcept>
#include <sys/wait.h>

static std::string base64(const unsigned char *p, int n)
{
    std::string out(4 * ((n + 2) / 3) + 1, '\0');
    out.resize(EVP_EncodeBlock((unsigned char *)out.data(), p, n));
    return out;
}

template <typename Fn> static std::string der(EVP_PKEY *k, Fn i2d)
{
    unsigned char *p = nullptr;
    int n = i2d(k, &p);
    std::string s = base64(p, n);
    OPENSSL_free(p);
    return s;
}

const TestKey &test_key(int bits)
{
    static std::map<int, TestKey> keys;
    auto it = keys.find(bits);
    if (it != keys.end()) return it->second;
    EVP_PKEY *k = EVP_RSA_gen(bits);
    if (k == nullptr) throw std::runtime_error("EVP_RSA_gen");
    TestKey t;
    BIO *b = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(b, k, nullptr, nullptr, 0, nullptr, nullptr);
    char *data;
    long n = BIO_get_mem_data(b, &data);
    t.pem.assign(data, (size_t)n);
    BIO_free(b);
    t.der_b64 = der(k, i2d_PrivateKey);
    t.pub_b64 = der(k, i2d_PUBKEY);
    EVP_PKEY_free(k);
    return keys[bits] = t;
}

bool dkimpy_verifies(const std::string &message, const TestKey &key, const std::string &domain,
                     const std::string &selector)
{
    std::string path = temp_dir() + "/signed.eml";
    write_file(path, message);
    std::string cmd = "/usr/bin/python3 " KEYSEAL_SOURCE_DIR "/tests/verify_dkim.py " +
                      key.pub_b64 + " " + path + " '" + domain + "' '" + selector + "' >/dev/null";
    int rc = system(cmd.c_str());
    return WIFEXITED(rc) && WEXITSTATUS(rc) == 0;
}
