#include "dkim/dk_sign.h"
#include "dkim_key.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace
{

struct Signed {
    int status;
    std::string text; // "(none)" when the result had no text
};

Signed sign(const std::string &message, const std::string &key, const char *domain = "example.com",
            const char *selector = "sel")
{
    FILE *f = fmemopen((void *)message.data(), message.size(), "r");
    if (message.empty()) f = fopen("/dev/null", "r");
    dk_result *r = keyseal(domain, selector, key.c_str(), f);
    fclose(f);
    Signed s{r->status, r->text ? r->text : "(none)"};
    dk_result_free(r);
    return s;
}

std::map<std::string, std::string> tags(const std::string &header)
{
    std::string value = header.substr(header.find(':') + 1);
    value.erase(std::remove_if(value.begin(), value.end(), isspace), value.end());
    std::map<std::string, std::string> out;
    std::stringstream ss(value);
    for (std::string item; std::getline(ss, item, ';');)
        if (!item.empty()) out[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
    return out;
}

const std::string HEADERS =
    "Received: from a by b\nReceived: from c by d\nFrom: Ann <ann@example.com>\n"
    "To: bob@example.net\nSubject: hello\n   there\nCc: carl@example.net\n"
    "Date: Sat, 21 Nov 2026 06:00:00 +0000\nMessage-ID: <1@example.com>\n";

std::string crlf(std::string s)
{
    std::string out;
    for (char c : s)
        out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out;
}

TEST(DkSign, HeaderFormat)
{
    Signed s = sign(HEADERS + "\nbody\n", test_key(2048).pem);
    ASSERT_EQ(s.status, 0) << s.text;
    EXPECT_EQ(s.text.rfind("DKIM-Signature: ", 0), 0u);
    EXPECT_EQ(s.text.back(), '\n');
    EXPECT_EQ(s.text.find('\r'), std::string::npos);
    std::stringstream lines(s.text);
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line))
        EXPECT_EQ(line[0], '\t') << line;

    auto t = tags(s.text);
    EXPECT_EQ(t["v"], "1");
    EXPECT_EQ(t["a"], "rsa-sha256");
    EXPECT_EQ(t["c"], "relaxed/relaxed");
    EXPECT_EQ(t["d"], "example.com");
    EXPECT_EQ(t["s"], "sel");
    for (const char *present : {"t", "bh", "b"})
        EXPECT_FALSE(t[present].empty()) << present;
    for (const char *absent : {"l", "x", "i", "q", "z", "r"})
        EXPECT_EQ(t.count(absent), 0u) << absent;

    std::string h = t["h"];
    std::transform(h.begin(), h.end(), h.begin(), ::tolower);
    std::vector<std::string> names;
    std::stringstream hs(h);
    for (std::string n; std::getline(hs, n, ':');)
        names.push_back(n);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"from", "received", "received", "subject", "to"}));
}

// Every successful signature must verify at an independent receiver.
TEST(DkSign, VerifiesWithDkimpy)
{
    std::string longline(40000, 'L');
    struct {
        const char *name;
        int bits;
        bool der;
        std::string message;
    } cases[] = {
        {"lf 2048 pem", 2048, false, HEADERS + "\nbody\n\nmore\n"},
        {"crlf 2048 pem", 2048, false, crlf(HEADERS + "\nbody\n\nmore\n")},
        {"lf 1024 pem", 1024, false, HEADERS + "\nbody\n"},
        {"crlf 2048 der", 2048, true, crlf(HEADERS + "\nbody\n")},
        {"lf 1024 der", 1024, true, "From: a@example.com\n\nx\n"},
        {"long body line", 2048, false, "From: a@example.com\n\n" + longline + "\nend\n"},
        {"headers only", 2048, false, "From: a@example.com\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const TestKey &k = test_key(c.bits);
        Signed s = sign(c.message, c.der ? k.der_b64 : k.pem);
        ASSERT_EQ(s.status, 0) << s.text;
        EXPECT_TRUE(dkimpy_verifies(s.text + c.message, k, "example.com", "sel"));
    }
}

// The body hash shows exactly what bytes reached the library.  These inputs are not
// valid RFC 5322 (bare CR, NUL, 32 KiB lines), and verifiers differ on them, so the
// check is on the bytes fed rather than on a verifier's verdict.
TEST(DkSign, LineEndRepair)
{
    const std::string pre = "From: a@example.com\n\n";
    std::string x(32764, 'x');
    struct {
        const char *name;
        std::string body, same_as;
    } cases[] = {
        {"lf becomes crlf", "a\nb\n", "a\r\nb\r\n"},
        {"lone cr stays", "a\rb\n", "a\rb\r\n"},
        {"cr at the piece boundary gives cr cr lf", x + "\r\n", x + "\r\r\n"},
        {"nul ends the piece", std::string("a\0b\nc\n", 6), "ac\r\n"},
    };
    const std::string &key = test_key(2048).pem;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Signed a = sign(pre + c.body, key), b = sign(crlf(pre) + c.same_as, key);
        ASSERT_EQ(a.status, 0);
        ASSERT_EQ(b.status, 0);
        EXPECT_EQ(tags(a.text)["bh"], tags(b.text)["bh"]);
    }
    EXPECT_NE(tags(sign(pre + "a\rb\n", key).text)["bh"],
              tags(sign(pre + "a\nb\n", key).text)["bh"]);
}

TEST(DkSign, Failures)
{
    const TestKey &k = test_key(2048);
    const std::string msg = "From: a@example.com\n\nbody\n";
    struct {
        const char *name;
        std::string message, key;
        const char *domain, *selector;
        int status;
        std::string text;
    } cases[] = {
        {"no From", "To: b@example.com\n\nbody\n", k.pem, "example.com", "s", 5,
         "DKIM Feed: Syntax error"},
        {"empty stream", "", k.pem, "example.com", "s", 9, "DKIM Invalid parameter"},
        {"garbage key", msg, "not a key at all", "example.com", "s", 6,
         "DKIM Resource unavailable"},
        // this library version accepts the text at dkim_sign and refuses it at the end
        {"MII not base64", msg, "MII!!!!", "example.com", "s", 6, "DKIM Resource unavailable"},
        // fed unchanged, a body without a final line end is refused by the library
        {"no last line end", "From: a@example.com\n\nbody", k.pem, "example.com", "s", 5,
         "DKIM Syntax error"},
        {"512-bit key", msg, test_key(512).pem, "example.com", "s", 17, "DKIM (null)"},
        {"control byte in domain", msg, k.pem, "exa\x01mple.com", "s", 9,
         "Unable to initialize DKIM siginig process: Invalid parameter"},
        {"control byte in selector", msg, k.pem, "example.com", "s\x7f", 9,
         "Unable to initialize DKIM siginig process: Invalid parameter"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Signed s = sign(c.message, c.key, c.domain, c.selector);
        EXPECT_EQ(s.status, c.status);
        EXPECT_EQ(s.text, c.text);
    }

    FILE *dir = fopen("/tmp", "r"); // reading a directory fails with EISDIR
    ASSERT_NE(dir, nullptr);
    dk_result *r = keyseal("example.com", "s", k.pem.c_str(), dir);
    fclose(dir);
    EXPECT_EQ(r->status, 7);
    EXPECT_STREQ(r->text, "DKIM Cannot read message from stream");
    dk_result_free(r);
}

} // namespace
