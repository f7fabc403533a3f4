// explain --queue-id on log lines the Postfix lab does not easily produce: each of
// keyseal-milter's own outcomes, and a message the milter never saw.
#include "admin/explain_queue.h"

#include <gtest/gtest.h>

TEST(ExplainQueueId, NamesTheVerdictTheRuleAndTheFix)
{
    const std::string client = "Nov 21 10:00:00 mx postfix/smtpd[1]: Q1: client=app[10.0.0.6]";
    const std::string pickup = "Nov 21 10:00:00 mx postfix/pickup[1]: Q1: uid=33 from=<www@host>";
    const std::string keyseal = "Nov 21 10:00:01 mx keyseal[7]: Q1: ";
    const std::string milter = "Nov 21 10:00:01 mx keyseal-milter[3]: Q1: ";
    const struct {
        std::vector<std::string> lines;
        const char *expected[3];
    } cases[] = {
        // clang-format off
        {{client, milter + "null sender (a bounce): not given to the handler"},
         {"client: app[10.0.0.6]\n", "verdict: not signed\n", "rule: a bounce (null sender)"}},
        {{client, milter + "sender domain 'a..b' is not a host name: not given to the handler; the message passes unsigned"},
         {"verdict: not signed\n", "domain 'a..b' is not a host name", "use a real address"}},
        {{client, keyseal + "Not sendmail, not authorized, TCPREMOTEIP=10.0.0.6 not whitelisted - not signing"},
         {"verdict: not signed (SKIP)\n", "client 10.0.0.6 did not log in", "whitelist add 10.0.0.6/32"}},
        {{keyseal + "Not sendmail, not authorized, TCPREMOTEIP=NULL not whitelisted - not signing"},
         {"verdict: not signed (SKIP)\n", "no client address", "keyseal-admin postfix check"}},
        {{client, keyseal + "Authorized user (SMTP_AUTHORIZED=ann) -> signing"},
         {"verdict: signed\n", "logged in as ann (SMTP AUTH)", ""}},
        {{pickup, keyseal + "Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
          milter + "signed d=host but From: is shop.example: DMARC will not align"},
         {"sender: www@host\nverdict: signed\n", "note: signed d=host but the From: header's domain is shop.example",
          "keyseal-admin keygen shop.example"}},
        {{client, keyseal + "Whitelisted TCPREMOTEIP=10.0.0.6 -> signing",
          milter + "not signed: the handler ran past the time limit of 1 s and was killed; temporary failure (strict)"},
         {"verdict: failed, not signed (strict: Postfix answered 451", "the handler ran past the time limit", ""}},
        {{pickup, keyseal + "Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
          keyseal + "cannot get sender domain key from /etc/domainkeys//default"},
         {"verdict: failed, not signed\n", "no domain to sign for", "nothing to change"}},
        {{client, keyseal + "Authorized user (SMTP_AUTHORIZED=ann) -> signing",
          milter + "warning: body line 4 is 2000 characters long, more than Postfix's SMTP line limit of 998: Postfix will break it after signing and the signature will not verify at the receiver"},
         {"verdict: signed\n", "note: body line 4 is 2000 characters long, more than Postfix's SMTP line limit of 998",
          "set long_lines fold in /etc/keyseal/milter.conf"}},
        {{client, milter + "lines folded as Postfix's SMTP client would, before signing: 3 longer than 998 characters, the first header Subject:",
          keyseal + "Authorized user (SMTP_AUTHORIZED=ann) -> signing"},
         {"verdict: signed\n", "note: long lines folded before signing, as Postfix's SMTP client folds them: 3 longer",
          "of 998, the first header Subject:;"}},
        {{client, "Nov 21 10:00:00 mx postfix/cleanup[1]: Q1: message-id=<m@x>"},
         {"log: Nov 21 10:00:00 mx postfix/cleanup[1]: Q1: message-id=<m@x>\n",
          "keyseal-milter never saw this message", "non_smtpd_milters"}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.lines.back());
        std::vector<std::string> lines = c.lines;
        lines.push_back(
            "Nov 21 10:00:02 mx keyseal[7]: Q12: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing");
        std::string out = keyseal_admin::explain_queue_id("Q1", lines, 1795300000);
        for (const char *part : c.expected)
            EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
        EXPECT_EQ(out.find("Q12"), std::string::npos); /* another message's line */
    }
    EXPECT_EQ(keyseal_admin::explain_queue_id("Q9", cases[0].lines, 1795300000), "");
}
