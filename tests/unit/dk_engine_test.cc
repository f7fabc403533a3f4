// The signing engine's report of the removal walk: which DKIM-Signature headers it
// cuts and keeps, numbered as a milter addresses them (any letter case, 1 = first).
// The messages' bytes after the walk are the end-to-end suite's; this is what explain
// and keyseal-milter are told.  Runs inside the test sandbox (private spool, no keys).
#include "admin/keys.h"
#include "dkim/dk_engine.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <openssl/rsa.h>

#include <cstdlib>
#include <sys/stat.h>
#include <vector>

namespace
{

const char OWN[] = "DKIM-Signature: v=1; a=rsa-sha256;\n\td=example.com; s=old;\n b=AAAA\n";
const char OWN2[] = "DKIM-Signature: v=1; d=example.com; s=two; b=BBBB\n";
const char FOREIGN[] = "DKIM-Signature: v=1; d=other.org; s=x; b=CCCC\n";
const char LOWER[] = "dkim-signature: v=1; d=example.com; s=low; b=DDDD\n";
const char HEAD[] = "From: ann@example.com\nSubject: hi\n";
const char WITH_NUL[] = "From: ann@example.com\nX: a\0b\n\nbody\n";

void record(void *data, int event, int number, const char *)
{
    auto *seen = static_cast<std::string *>(data);
    if (event == DK_EVENT_CUT || event == DK_EVENT_KEPT)
        *seen += (event == DK_EVENT_CUT ? "cut " : "kept ") + std::to_string(number) + " ";
}

TEST(DkEngine, ReportsWhatTheRemovalWalkCutsAndKeeps)
{
    halyx_log_init("nowhere", LOG_INFO, LOG_MAIL, 0, nullptr);
    setenv("PPP_INSIDE_SENDMAIL", "1", 1);
    const struct {
        const char *name;
        std::string headers, events;
    } cases[] = {
        {"own, folded, then foreign", std::string(OWN) + FOREIGN + HEAD, "cut 1 kept 2 "},
        {"foreign before own: the foreign is cut", std::string(FOREIGN) + OWN + HEAD,
         "cut 1 kept 2 "},
        {"adjacent own pair: the second stays", std::string(OWN) + OWN2 + HEAD, "cut 1 kept 2 "},
        {"lower-case name is never cut but counts", std::string(LOWER) + HEAD + OWN2,
         "cut 2 kept 1 "},
        {"separated own pair: both go", std::string(OWN) + HEAD + OWN2, "cut 1 cut 2 "},
        {"no signature", HEAD, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string message = c.headers + "\nbody\n", seen;
        FILE *in = fmemopen(message.data(), message.size(), "r");
        dk_engine_job job = {"example.com", "",      in,      nullptr, record, &seen, nullptr, 0,
                             nullptr,       nullptr, nullptr, nullptr, 0};
        EXPECT_EQ(dk_engine_run(&job), DK_ENGINE_FAILED); /* no key in the sandbox */
        fclose(in);
        EXPECT_EQ(seen, c.events);
        EXPECT_TRUE(spool_files().empty());
    }
    unsetenv("PPP_INSIDE_SENDMAIL");
}

/* Seen - what an in-place and a spooled run tell: the events but the spool file's and the
 * key's, which carry no number */
struct Seen {
    std::string events;
    std::vector<std::string> signatures;
    bool spooled = false;
};

void seen(void *data, int event, int number, const char *text)
{
    auto *s = static_cast<Seen *>(data);
    if (event == DK_EVENT_SIGNED) s->signatures.push_back(text);
    if (event == DK_EVENT_SPOOLED) s->spooled = true;
    if (event != DK_EVENT_KEY && event != DK_EVENT_SPOOLED)
        s->events += std::to_string(event) + ":" + std::to_string(number) + " ";
}

/* sign - the message through the engine with the policy given, not the environment's */
Seen sign(const std::string &message, int in_place, const dk_policy_inputs &policy)
{
    static const char *const selectors[] = {"inplace", nullptr};
    /* every field the cases edit or the handler rewrites is signed */
    static const char *const fields[] = {"From", "Subject", "X", "DKIM-Signature", nullptr};
    Seen s;
    FILE *in = fmemopen((void *)message.data(), message.size(), "r");
    dk_engine_job job = {"example.com", "",      in,      nullptr, seen,    &s, selectors, 0,
                         fields,        nullptr, &policy, nullptr, in_place};
    s.events += std::to_string(dk_engine_run(&job)) + " ";
    fclose(in);
    return s;
}

std::string t_tag(const Seen &s)
{
    if (s.signatures.empty()) return "";
    size_t at = s.signatures[0].find("t=");
    return s.signatures[0].substr(at, s.signatures[0].find(';', at) - at);
}

/* keyseal-milter signs the message as it reads it; what it signs must be, byte for byte,
 * what the spool file would have held, the removal walk's cuts and the handler's rewriting
 * of odd header blocks included */
TEST(DkEngine, SigningInPlaceSignsWhatTheSpoolFileWouldHold)
{
    halyx_log_init("nowhere", LOG_INFO, LOG_MAIL, 0, nullptr);
    mkdir("/etc/domainkeys/example.com", 0755);
    write_file("/etc/domainkeys/example.com/inplace",
               keyseal_admin::key_pem(keyseal_admin::Pkey(EVP_RSA_gen(1024)).get()));
    setenv("PPP_INSIDE_SENDMAIL", "1", 1); /* the job's inputs decide, not this */
    const dk_policy_inputs local = {"1", nullptr, nullptr}, none = {nullptr, nullptr, nullptr};
    const struct {
        const char *name;
        std::string message;
    } cases[] = {
        {"CR LF", "From: ann@example.com\r\nSubject: hi\r\n\r\nbody\r\n"},
        {"own signature cut", std::string(OWN) + FOREIGN + HEAD + "\nbody\n"},
        {"no separator, no line end", "From: ann@example.com\nSubject: hi"},
        {"NUL in a header line", std::string(WITH_NUL, sizeof(WITH_NUL) - 1)},
        {"a lone CR ends the input", "From: ann@example.com\n\r"},
        {"a line past the read buffer",
         "From: ann@example.com\nX: " + std::string(40000, 'x') + "\n" + OWN + "\nbody\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Seen spooled = sign(c.message, 0, local), in_place = sign(c.message, 1, local);
        /* t= is the second of signing: the two runs are compared within one */
        for (int tries = 0; tries < 5 && t_tag(spooled) != t_tag(in_place); tries++)
            spooled = sign(c.message, 0, local), in_place = sign(c.message, 1, local);
        ASSERT_EQ(spooled.signatures.size(), 1u) << spooled.events;
        EXPECT_EQ(in_place.signatures, spooled.signatures);
        EXPECT_EQ(in_place.events, spooled.events);
        EXPECT_EQ(std::make_pair(spooled.spooled, in_place.spooled), std::make_pair(true, false));
        EXPECT_TRUE(spool_files().empty());
    }
    EXPECT_EQ(sign(HEAD, 1, none).events, "0:0 5 ");
    unsetenv("PPP_INSIDE_SENDMAIL");
}

} // namespace
