// The report's line classifier and stamp parser, for what the end-to-end report (real
// handler runs through a real rsyslogd) does not meet: a spool failure's lines, other
// stamp forms, another program's line that names keyseal.
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
