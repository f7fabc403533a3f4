// What keyseal-milter asks of the mail server for each of the handler's verdicts.
#include "milter/verdict.h"

#include "milter/milter_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

namespace
{

using namespace keyseal_milter;

const std::string OURS = "DKIM-Signature: v=1; d=example.com;\r\n\tb=old\r\n";
const std::string THEIRS = "DKIM-Signature: v=1; d=example.net; b=x\r\n";
const std::string NEW_RSA = "DKIM-Signature: v=1; a=rsa-sha256;\n\tb=r\n";
const std::string NEW_ED = "DKIM-Signature: v=1; a=ed25519-sha256;\n\tb=e\n";

Result signed_with(std::vector<Cut> cuts, std::vector<std::string> sigs, std::string why = "")
{
    Result r;
    r.verdict = Verdict::SIGNED;
    r.cuts = std::move(cuts);
    r.signatures = std::move(sigs);
    r.reason = std::move(why);
    return r;
}

Result failed(std::string why, bool retry)
{
    Result r;
    r.reason = std::move(why);
    r.retry = retry;
    return r;
}

std::string text(const char *format, const char *a, const char *b = "")
{
    char buf[512];
    snprintf(buf, sizeof(buf), format, a, b);
    return buf;
}

std::string mismatch(int place)
{
    char buf[256];
    snprintf(buf, sizeof(buf), MILTER_LOG_CUT_MISMATCH, "Q1", place);
    return buf;
}

TEST(Verdict, EveryOutcomeAsTheServerIsAsked)
{
    Result skipped;
    skipped.verdict = Verdict::SKIPPED;
    const std::vector<std::string> held = {THEIRS, OURS, OURS};
    struct Case {
        const char *name;
        Result r;
        bool strict;
        Plan want;
    } cases[] = {
        {"signed, nothing cut",
         signed_with({}, {NEW_RSA}),
         false,
         {Disposition::PASS, {}, {" v=1; a=rsa-sha256;\n\tb=r"}, {}}},
        {"two cuts held as cut: the highest goes first",
         signed_with({{2, OURS}, {3, OURS}}, {NEW_RSA}),
         false,
         {Disposition::PASS, {3, 2}, {" v=1; a=rsa-sha256;\n\tb=r"}, {}}},
        {"a cut the server holds otherwise stays, and is named",
         signed_with({{1, OURS}, {2, OURS}}, {NEW_RSA}),
         false,
         {Disposition::PASS, {2}, {" v=1; a=rsa-sha256;\n\tb=r"}, {{LOG_WARNING, mismatch(1)}}}},
        {"a cut past the headers held",
         signed_with({{9, OURS}}, {NEW_RSA}),
         false,
         {Disposition::PASS, {}, {" v=1; a=rsa-sha256;\n\tb=r"}, {{LOG_WARNING, mismatch(9)}}}},
        {"the same place twice is deleted once",
         signed_with({{2, OURS}, {2, OURS}}, {NEW_RSA}),
         false,
         {Disposition::PASS, {2}, {" v=1; a=rsa-sha256;\n\tb=r"}, {{LOG_WARNING, mismatch(2)}}}},
        {"dual: inserted last first, so that they stand in the engine's order",
         signed_with({}, {NEW_RSA, NEW_ED}),
         false,
         {Disposition::PASS,
          {},
          {" v=1; a=ed25519-sha256;\n\tb=e", " v=1; a=rsa-sha256;\n\tb=r"},
          {}}},
        {"one selector of two failed",
         signed_with({}, {NEW_RSA}, "selector ed1: gone"),
         true,
         {Disposition::PASS,
          {},
          {" v=1; a=rsa-sha256;\n\tb=r"},
          {{LOG_WARNING, text(MILTER_LOG_PARTIAL, "Q1", "selector ed1: gone")}}}},
        {"skipped: as it is", skipped, true, {}},
        {"failed, retry, fail open",
         failed("no key", true),
         false,
         {Disposition::PASS, {}, {}, {{LOG_ERR, text(MILTER_LOG_NOT_SIGNED, "Q1", "no key")}}}},
        {"failed, retry, strict",
         failed("no key", true),
         true,
         {Disposition::TEMPFAIL, {}, {}, {{LOG_ERR, text(MILTER_LOG_TEMPFAIL, "Q1", "no key")}}}},
        {"failed the same way every time passes even under strict",
         failed("no From", false),
         true,
         {Disposition::PASS, {}, {}, {{LOG_ERR, text(MILTER_LOG_PERMANENT, "Q1", "no From")}}}},
        {"signed without a signature is a fault a retry may cure",
         signed_with({}, {}),
         true,
         {Disposition::TEMPFAIL,
          {},
          {},
          {{LOG_ERR, text(MILTER_LOG_TEMPFAIL, "Q1", "the handler gave no signature")}}}},
    };
    for (const Case &c : cases)
        EXPECT_EQ(decide("Q1", c.r, held, c.strict), c.want) << c.name;
}

} // namespace
