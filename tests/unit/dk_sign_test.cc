// The signer at byte level.  That its signatures verify is shown end to end, where
// every output of the real binary goes through dkimpy.
#include "admin/keys.h"
#include "dkim/dk_sign.h"
#include "milter/milter_conf.h"

#include <gtest/gtest.h>

#include <map>
#include <openssl/rsa.h>
#include <string>

namespace
{

/* pem_key - one key per size for the whole run, written as keyseal-admin keygen writes it */
std::string pem_key(int bits)
{
    static std::map<int, std::string> keys;
    if (keys.count(bits) == 0)
        keys[bits] = keyseal_admin::key_pem(keyseal_admin::Pkey(EVP_RSA_gen(bits)).get());
    return keys[bits];
}

std::pair<int, std::string> sign(const std::string &message, const std::string &key,
                                 const char *selector = "s")
{
    FILE *f = fmemopen((void *)message.data(), message.size(), "r");
    dk_result *r = keyseal("example.com", selector, key.c_str(), f);
    fclose(f);
    std::pair<int, std::string> out{r->status, r->text ? r->text : "(none)"};
    dk_result_free(r);
    return out;
}

std::string body_hash(const std::string &message)
{
    std::string h = sign(message, pem_key(2048)).second;
    size_t at = h.find("bh=");
    return at == std::string::npos ? "" : h.substr(at, h.find(';', at) - at);
}

// Inputs that are not valid RFC 5322 (bare CR, NUL, 32 KiB lines) make verifiers
// disagree, so the body hash shows which bytes reached the library.
TEST(DkSign, LineEndRepair)
{
    const std::string crlf_head = "From: a@example.com\r\n\r\n",
                      lf_head = "From: a@example.com\n\n";
    const std::string x(32764, 'x');
    const struct {
        const char *name;
        std::string body, fed;
    } cases[] = {
        {"lf becomes crlf", "a\nb\n", "a\r\nb\r\n"},
        {"lone cr stays", "a\rb\n", "a\rb\r\n"},
        {"cr at the piece boundary gives cr cr lf", x + "\r\n", x + "\r\r\n"},
        {"nul ends the piece", std::string("a\0b\nc\n", 6), "ac\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(body_hash(lf_head + c.body), body_hash(crlf_head + c.fed));
    }
    EXPECT_NE(body_hash(lf_head + "a\rb\n"), body_hash(lf_head + "a\nb\n"));
}

TEST(DkSign, Failures)
{
    const std::string k = pem_key(2048), msg = "From: a@example.com\n\nbody\n";
    const struct {
        std::string message, key;
        const char *selector;
        int status;
        std::string text;
    } cases[] = {
        // clang-format off
        // fed unchanged, a body without a final line end is refused by the library
        {"From: a@example.com\n\nbody", k, "s", 5, "DKIM Syntax error"},
        {msg, pem_key(512), "s", 17, "DKIM status 17"},
        {msg, k, "s\x7f", 9, "Unable to initialize DKIM siginig process: Invalid parameter"},
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(sign(c.message, c.key, c.selector), std::make_pair(c.status, c.text)) << c.text;

    FILE *dir = fopen("/tmp", "r"); // reading a directory fails with EISDIR
    dk_result *r = keyseal("example.com", "s", k.c_str(), dir);
    fclose(dir);
    EXPECT_EQ(std::make_pair(r->status, std::string(r->text)),
              std::make_pair(7, std::string("DKIM Cannot read message from stream")));
    dk_result_free(r);
}

// Two signatures in one pass: one that the library refuses at the start keeps its reason,
// the other is made as alone.
TEST(DkSign, EachSignerAnsweredOnItsOwn)
{
    const std::string k = pem_key(2048), msg = "From: a@example.com\n\nbody\n";
    const dk_signer signers[] = {{"bad\x7f", k.c_str(), DKIM_SIGN_DEFAULT},
                                 {"s", k.c_str(), DKIM_SIGN_DEFAULT}};
    dk_result *r[2];
    FILE *f = fmemopen((void *)msg.data(), msg.size(), "r");
    keyseal_each("example.com", signers, 2, nullptr, nullptr, f, r);
    fclose(f);
    EXPECT_EQ(std::make_pair(r[0]->status, std::string(r[0]->text ? r[0]->text : "(none)")),
              std::make_pair(9, std::string("Unable to initialize DKIM siginig process: "
                                            "Invalid parameter")));
    EXPECT_EQ(r[1]->status, 0);
    EXPECT_NE(std::string(r[1]->text ? r[1]->text : "").find("s=s;"), std::string::npos);
    dk_result_free(r[0]);
    dk_result_free(r[1]);
}

/* h_tag - a signature's h= value, its folding white space taken out */
std::string h_tag(const std::string &header)
{
    std::string flat;
    for (char ch : header)
        if (ch != ' ' && ch != '\t' && ch != '\n') flat += ch;
    size_t at = flat.find(";h=");
    return at == std::string::npos ? "" : flat.substr(at + 3, flat.find(';', at + 3) - at - 3);
}

// keyseal-milter's worker signs message after message in one process: each call's fields
// and oversigned fields, never an earlier call's, make its h=.
TEST(DkSign, EachCallSignsItsOwnFields)
{
    const std::string k = pem_key(2048),
                      msg = "Received: by x\nFrom: a@example.com\nTo: b@example.net\n"
                            "Subject: s\nDate: d\nX-A: 1\n\nbody\n";
    static const char *const date[] = {"From", "Date", nullptr};
    static const char *const wild[] = {"from", "x-*", "Resent-*", nullptr};
    static const char *const over[] = {"From", "Subject", nullptr}, *const none[] = {nullptr};
    /* keyseal-milter's own sets, as it signs when not told otherwise */
    const keyseal_milter::Config conf;
    std::vector<const char *> conf_headers, conf_oversign;
    for (const auto &name : conf.headers)
        conf_headers.push_back(name.c_str());
    for (const auto &name : conf.oversign)
        conf_oversign.push_back(name.c_str());
    conf_headers.push_back(nullptr), conf_oversign.push_back(nullptr);
    const struct {
        const char *const *headers, *const *oversign;
        const char *h;
    } cases[] = {
        {conf_headers.data(), conf_oversign.data(),
         "From:To:Subject:Date:From:To:Cc:Reply-To:Subject:Date:Message-ID:MIME-Version:"
         "Content-Type"},
        {nullptr, nullptr, "Received:From:To:Subject"},
        {date, nullptr, "From:Date"},
        {date, over, "From:Date:From:Subject"},
        {date, none, "From:Date"},
        {wild, over, "From:X-A:From:Subject"},
        {nullptr, nullptr, "Received:From:To:Subject"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.h);
        const dk_signer one = {"s", k.c_str(), DKIM_SIGN_DEFAULT};
        dk_result *r;
        FILE *f = fmemopen((void *)msg.data(), msg.size(), "r");
        keyseal_each("example.com", &one, 1, c.headers, c.oversign, f, &r);
        fclose(f);
        EXPECT_EQ(h_tag(r->text ? r->text : ""), c.h);
        dk_result_free(r);
    }
}

// The algorithm comes from each key's own text, whatever came before it.
TEST(DkSign, AlgorithmOfEachKeyText)
{
    const std::string rsa = pem_key(1024),
                      ed = keyseal_admin::key_pem(
                          keyseal_admin::Pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"))
                              .get());
    const struct {
        std::string key;
        int algorithm;
    } cases[] = {
        {rsa, DKIM_SIGN_RSASHA256},    {ed, DKIM_SIGN_ED25519SHA256},
        {rsa, DKIM_SIGN_RSASHA256},    {ed + "\n", DKIM_SIGN_ED25519SHA256},
        {ed, DKIM_SIGN_ED25519SHA256},
    };
    for (const auto &c : cases)
        EXPECT_EQ(dk_sign_algorithm_for(c.key.c_str()), c.algorithm) << c.key;
}

} // namespace

// The length the signer hashes a header field at: relaxed canonical form, CRLF included.
TEST(DkSign, CanonicalFieldLength)
{
    const struct {
        const char *field;
        size_t want;
    } cases[] = {
        {"To: bob@example.net\r\n", strlen("to:bob@example.net\r\n")},
        {"To:bob@example.net", strlen("to:bob@example.net\r\n")},
        {"Subject \t: a  \t b\r\n\t c \r\n", strlen("subject:a b c\r\n")},
        {"X:\r\n\t\r\n ", strlen("x:\r\n")},
        {"no colon", strlen("no colon\r\n")},
    };
    for (const auto &c : cases)
        EXPECT_EQ(dk_sign_canonical_length(c.field, strlen(c.field)), c.want) << c.field;
}
