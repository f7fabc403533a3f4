/* Test keys made with OpenSSL at test time, and dkimpy as the independent verifier. */
#ifndef KEYSEAL_DKIM_KEY_H
#define KEYSEAL_DKIM_KEY_H

#include <string>

struct TestKey {
    std::string pem;     // PKCS#8 PEM private key
    std::string der_b64; // the same key as bare base64 DER ("MII...")
    std::string pub_b64; // SubjectPublicKeyInfo, base64: the p= of the key record
};

const TestKey &test_key(int bits); // one per size, made once
bool dkimpy_verifies(const std::string &message, const TestKey &key, const std::string &domain,
                     const std::string &selector);

#endif
