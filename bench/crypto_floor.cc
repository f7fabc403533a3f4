/*
 * crypto_floor KEY.pem - the least any DKIM signer must do: hash standard input
 * with SHA-256 in 64 KiB chunks while copying it to standard output, then make
 * one RSA signature with the key.
 */
#include <cstdio>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    FILE *kf = argc > 1 ? fopen(argv[1], "r") : nullptr;
    EVP_PKEY *key = kf ? PEM_read_PrivateKey(kf, nullptr, nullptr, nullptr) : nullptr;
    if (key == nullptr) return 2;
    fclose(kf);
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key);
    static unsigned char buf[65536];
    for (ssize_t n; (n = read(0, buf, sizeof(buf))) > 0;) {
        EVP_DigestSignUpdate(ctx, buf, (size_t)n);
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(1, buf + done, (size_t)(n - done));
            if (w < 0) return 1;
            done += w;
        }
    }
    unsigned char sig[1024];
    size_t len = sizeof(sig);
    int ok = EVP_DigestSignFinal(ctx, sig, &len);
    EVP_MD_CTX_free(ctx);
    EVP_PKEY_free(key);
    return ok == 1 ? 0 : 1;
}
