// The signer on a fixed, valid 1024-bit key (made once per run, as keygen makes keys),
// over any message.
// Property: keyseal() always returns a result and releases the library; a success
// carries exactly one header, "DKIM-Signature: " first, every line ended by LF, no CR,
// continuation lines starting with TAB; a failure carries a one-line text or none.
// A NUL dropping the rest of its line is the designed behaviour, not a finding.
#include "admin/keys.h"
#include "dkim/dk_sign.h"
#include "util/halyx_log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <openssl/rsa.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (halyx_log_init("none", 6, 16, 0, nullptr), true);
    static const std::string key =
        keyseal_admin::key_pem(keyseal_admin::Pkey(EVP_RSA_gen(1024)).get());
    (void)quiet;
    std::string msg(reinterpret_cast<const char *>(data), size);
    FILE *f = fmemopen(msg.data(), msg.size(), "r");
    if (f == nullptr) abort();
    dk_result *r = keyseal("example.com", "fuzz", key.c_str(), f);
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
