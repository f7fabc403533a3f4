// The report's line classifier and stamp parser, for what the end-to-end report (real
// handler runs through a real rsyslogd) does not meet: a spool failure's lines, other
// stamp forms, another program's line that names keyseal.
#include "admin/maillog.h"
#include "admin/report.h"

#include <gtest/gtest.h>

using keyseal_admin::Kind;

TEST(Report, ClassifiesTheHandlersLines)
{
    const struct {
        const char *text;
        Kind kind;
        const char *value;
    } cases[] = {
        // clang-format off
        {"Unable to save email into the temporary file", Kind::Summary, "Unable to save email into the temporary file"},
        {"cannot create temporary file '/usr/local/hlx/handlers/spool/messageAb12Cd': (2) x", Kind::Detail,
         "cannot create temporary file '/usr/local/hlx/handlers/spool/messageXXXXXX': (2) x"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        auto got = keyseal_admin::classify(c.text);
        EXPECT_EQ(got.kind, c.kind);
        EXPECT_EQ(got.value, c.value);
    }
}

TEST(Report, ParsesBothStampsAndKeepsOnlyKeysealLines)
{
    using keyseal_admin::Parsed;
    const time_t now = 1795300000; /* 2026-11-21 */
    const struct {
        const char *line;
        Parsed parsed;
        time_t when;
        const char *trace;
    } cases[] = {
        // clang-format off
        {"2026-11-21T10:00:00+0100 mx keyseal[42]: K42: x", Parsed::Ours, 1795251600, "K42"},
        {"2026-11-21T10:00:00+01:00 mx postfix/smtp[42]: keyseal[1]: x", Parsed::NotOurs, 0, ""},
        {"2026-11-21 mx keyseal[42]: K42: x", Parsed::Malformed, 0, ""},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        keyseal_admin::Line l;
        EXPECT_EQ(keyseal_admin::parse_line(c.line, now, l), c.parsed);
        if (c.parsed != Parsed::Ours) continue;
        EXPECT_EQ(l.when, c.when);
        EXPECT_EQ(l.trace, c.trace);
        EXPECT_EQ((l.pid), 42);
        EXPECT_EQ(l.text, "x");
    }
}

// Log lines in, counts out: the handler's runs (as keyseal-milter's workers log them, one
// message after another under one pid) and keyseal-milter's own lines.
TEST(Report, CountsWhatTheLinesSay)
{
    const char *const log[] = {
        // clang-format off
        "Nov 21 10:00:00 mx keyseal[7]: Q1: Not sendmail, not authorized, TCPREMOTEIP=127.0.0.1 not whitelisted - not signing",
        "Nov 21 10:00:01 mx keyseal[7]: Q2: Not sendmail, not authorized, TCPREMOTEIP=127.8.9.10 not whitelisted - not signing",
        "Nov 21 10:00:02 mx keyseal[7]: Q3: Not sendmail, not authorized, TCPREMOTEIP=::1 not whitelisted - not signing",
        "Nov 21 10:00:03 mx keyseal[7]: Q4: Not sendmail, not authorized, TCPREMOTEIP=128.0.0.1 not whitelisted - not signing",
        "Nov 21 10:00:04 mx keyseal[7]: Q5: Not sendmail, not authorized, TCPREMOTEIP=NULL not whitelisted - not signing",
        "Nov 21 10:00:05 mx keyseal[7]: Q6: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
        "Nov 21 10:00:05 mx keyseal-milter[3]: Q6: signed d=host.example but From: is shop.example: DMARC will not align",
        "Nov 21 10:00:06 mx keyseal[7]: Q7: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
        "Nov 21 10:00:06 mx keyseal-milter[3]: Q7: signed d=host.example but From: is shop.example: DMARC will not align",
        "Nov 21 10:00:07 mx keyseal[7]: Q8: Authorized user (SMTP_AUTHORIZED=ann) -> signing",
        "Nov 21 10:00:07 mx keyseal-milter[3]: Q8: signed d=a.example but From: is b.example: DMARC will not align",
        "Nov 21 10:00:08 mx keyseal-milter[3]: Q9: null sender (a bounce): not given to the handler",
        "Nov 21 10:00:09 mx keyseal[8]: K8: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
        "Nov 21 10:00:09 mx keyseal[8]: K8: cannot get sender domain key from /etc/domainkeys//default",
        "Nov 21 10:00:10 mx keyseal[9]: K9: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
        "Nov 21 10:00:10 mx keyseal[9]: K9: cannot get sender domain key from /etc/domainkeys/shop.example/s1",
        "Nov 21 10:00:11 mx keyseal-milter[3]: listening on unix:/x (selector default)",
        "Nov 21 10:00:12 mx keyseal[10]: QA: Whitelisted TCPREMOTEIP=10.0.0.5 -> signing",
        "Nov 21 10:00:14 mx keyseal-milter[3]: QA: not signed: the handler ran past the time limit of 1 s and was killed; temporary failure (strict)",
        "Nov 21 10:00:15 mx keyseal[9]: QB: Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing",
        "Nov 21 10:00:15 mx keyseal[9]: QB: cannot get sender domain key from /etc/domainkeys/shop.example/s1",
        "Nov 21 10:00:15 mx keyseal-milter[3]: QB: not signed: the handler failed (exit 255; its keyseal lines say why); the message passes unsigned",
        "Nov 21 10:00:16 mx keyseal-milter[3]: QC: lines folded as Postfix's SMTP client would, before signing: 2 longer than 998 characters, the first body line 3",
        "Nov 21 10:00:17 mx keyseal-milter[3]: QD: warning: header Subject: is 1500 characters long, more than Postfix's SMTP line limit of 998: Postfix will break it after signing and the signature will not verify at the receiver",
        "Nov 21 10:00:18 mx keyseal-milter[3]: QE: lines folded as Postfix's SMTP client would, before signing: 1 longer than 500 characters, the first header To:",
        // clang-format on
    };
    const time_t now = 1795300000; /* 2026-11-21 */
    keyseal_admin::Tally tally;
    for (const char *text : log) {
        keyseal_admin::Line l;
        ASSERT_EQ(keyseal_admin::parse_line(text, now, l), keyseal_admin::Parsed::Ours) << text;
        tally.add(l);
    }
    auto s = tally.finish(0);
    EXPECT_EQ(s.runs, 12);
    EXPECT_EQ(s.failed, 4); /* the killed run too, by keyseal-milter's line */
    ASSERT_EQ(s.failures.size(), 3u);
    EXPECT_EQ(s.failures[0].reason, "cannot get sender domain key"); /* the handler's own */
    EXPECT_EQ(s.failures[0].count, 2);
    EXPECT_EQ(s.skipped, 5);
    EXPECT_EQ(s.loopback, 3); /* 127.0.0.0/8 and ::1; not 128.0.0.1, not an unset address */
    EXPECT_EQ(s.without_address, 1);
    EXPECT_EQ(s.by_rule.at("sendmail"), 2);
    EXPECT_EQ(s.by_rule.at("authorized"), 1);
    EXPECT_EQ(s.null_senders, 1);
    EXPECT_EQ(s.bounces, 1);
    ASSERT_EQ(s.no_key.size(), 1u);
    EXPECT_EQ(s.no_key[0], std::make_pair(std::string("shop.example/s1"), 2L));
    ASSERT_EQ(s.misaligned.size(), 2u);
    EXPECT_EQ(s.misaligned[0].d + " " + s.misaligned[0].from, "host.example shop.example");
    EXPECT_EQ(s.misaligned[0].count, 2);
    EXPECT_EQ(s.misaligned[1].d + " " + s.misaligned[1].from, "a.example b.example");
    auto j = keyseal_admin::render_json(s);
    EXPECT_EQ(j["skipped_loopback"], 3);
    EXPECT_EQ(j["misaligned"][0]["count"], 2);
    EXPECT_EQ(j["long_lines"]["folded"], 2);
    EXPECT_EQ(j["long_lines"]["warned"], 1);
    auto text = keyseal_admin::render_text(s, false);
    EXPECT_NE(text.find("whitelist add 127.0.0.1/32"), std::string::npos);
    EXPECT_NE(text.find("      2  host.example / shop.example\n"), std::string::npos);
}

TEST(Report, MatchReadsTheValuesOfAFormat)
{
    const struct {
        const char *fmt, *text;
        bool matches;
        std::vector<std::string> values;
    } cases[] = {
        {"a %s b %d c", "a x b 12 c", true, {"x", "12"}},
        {"%s: signed d=%s but From: is %s: DMARC",
         "Q: signed d=a.b but From: is c.d: DMARC",
         true,
         {"Q", "a.b", "c.d"}},
        {"%s/%s", "/default", true, {"", "default"}},
        {"a %s b", "a x c", false, {}},
        {"a %s b", "a b", false, {}}, /* the head and tail may not overlap */
        {"no values", "no values", true, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::vector<std::string> v;
        EXPECT_EQ(keyseal_admin::match(c.fmt, c.text, v), c.matches);
        if (c.matches) {
            EXPECT_EQ(v, c.values);
        }
    }
}
