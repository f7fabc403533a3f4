// The signer on a fixed, valid 1024-bit key (made once per run), over any message.
// Property: keyseal() always returns a result and releases the library; a success
// carries exactly one header, "DKIM-Signature: " first, every line ended by LF, no CR,
// continuation lines starting with TAB; a failure carries a one-line text or none.
// A NUL dropping the rest of its line is the designed behaviour, not a finding.
#include "dkim/dk_sign.h"
#include "util/halyx_log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <openssl/pem.h>
#include <string>

/* key - one 1024-bit key for the whole run, made at start (PEM, as the handler reads it) */
static const std::string &key()
{
    static const std::string pem = [] {
        EVP_PKEY *k = EVP_RSA_gen(1024);
        BIO *b = BIO_new(BIO_s_mem());
        PEM_write_bio_PrivateKey(b, k, nullptr, nullptr, 0, nullptr, nullptr);
        char *data = nullptr;
        long n = BIO_get_mem_data(b, &data);
        std::string text(data, (size_t)n);
        BIO_free(b);
        EVP_PKEY_free(k);
        return text;
    }();
    return pem;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (halyx_log_init("none", 6, 16, 0, nullptr), true);
    (void)quiet;
    std::string msg(reinterpret_cast<const char *>(data), size);
    FILE *f = fmemopen(msg.data(), msg.size(), "r");
    if (f == nullptr) abort();
    dk_result *r = keyseal("example.com", "fuzz", key().c_str(), f);
    fclose(f);
    if (r == nullptr) abort();
    std::string text = r->text != nullptr ? r->text : "";
    if (r->status == DKIM_STAT_OK && r->text != nullptr) {
        if (text.rfind("DKIM-Signature: ", 0) != 0 || text.back() != '\n') abort();
        if (text.find('\r') != std::string::npos) abort();
        for (size_t nl = text.find('\n'); nl + 1 < text.size(); nl = text.find('\n', nl + 1))
            if (text[nl + 1] != '\t') abort();
    } else if (text.find('\n') != std::string::npos) {
        abort();
    }
    dk_result_free(r);
    return 0;
}
