#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace
{

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

struct LevelCase {
    int word;
    const char *env; // nullptr: unset
    int expected;
};

TEST(Log, LevelWordAndEnvironment)
{
    const LevelCase cases[] = {
        {14, nullptr, 6}, {14, "7", 7}, {14, "3", 6}, {14, "07", 6}, {14, "9", 6},
        {14, "", 6},      {14, "8", 6}, {6, "7", 6},  {11, "5", 5},  {8, "0", 0},
    };
    LogLocation = "nowhere"; // keep setlogmask out of it
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.word) + " env=" + (c.env ? c.env : "(unset)"));
        if (c.env)
            setenv("HALYX_LOG_LEVEL", c.env, 1);
        else
            unsetenv("HALYX_LOG_LEVEL");
        halyx_log_set_level(c.word);
        EXPECT_EQ(LogLevel, c.expected);
    }
    unsetenv("HALYX_LOG_LEVEL");
}

struct RouteCase {
    const char *location;
    int level;
    std::string err, out;
};

TEST(Log, LocationRouting)
{
    const RouteCase cases[] = {
        {nullptr, 6, "m 6\n", "m 6\n"}, // before initialisation: both streams
        {"console", 3, "m 3\n", "m 3\n"}, {"STDERR", 6, "m 6\n", ""}, {"StdErr", 6, "m 6\n", ""},
        {"/var/log/x", 3, "", ""},        {"stderr", 7, "", ""}, // above the level
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.location ? c.location : "(null)");
        halyx_log_init("console", 6, 16, 0, nullptr);
        LogLocation = c.location;
        CaptureStderr();
        CaptureStdout();
        halyx_log(c.level, "m %d", c.level);
        std::string out = GetCapturedStdout();
        EXPECT_EQ(GetCapturedStderr(), c.err);
        EXPECT_EQ(out, c.out);
    }
}

TEST(Log, NonNullLocationKeepsOptions)
{
    unsigned int before = halyx_log_get_opts();
    halyx_log_init("stderr", 6, 16, 64, "ident");
    EXPECT_EQ(halyx_log_get_opts(), before);
}

TEST(Log, TraceId)
{
    setenv("HALYX_LOG_TRACE_ID", "abc", 1);
    halyx_log_init(nullptr, 14, 16, 64, nullptr);
    EXPECT_STREQ(LogTraceId, "abc");
    EXPECT_EQ(halyx_log_get_opts(), 65u);

    unsetenv("HALYX_LOG_TRACE_ID");
    halyx_log_init(nullptr, 14, 16, 64, nullptr);
    std::string expected = std::string("U").append(std::to_string(getpid())); // "unit_tests"
    EXPECT_EQ(LogTraceId, expected);
    ASSERT_NE(getenv("HALYX_LOG_TRACE_ID"), nullptr);
    EXPECT_EQ(getenv("HALYX_LOG_TRACE_ID"), expected);
    EXPECT_STREQ(LogIdent, "unit_tests");

    halyx_log_init(nullptr, 14, 16, 64, std::string(100, 'i').c_str());
    EXPECT_EQ(std::string(LogIdent), std::string(63, 'i'));
    unsetenv("HALYX_LOG_TRACE_ID");
    halyx_log_init("stderr", 6, 16, 0, nullptr);
}

TEST(Log, FatalMessagePath)
{
    struct {
        const char *prog;
        const char *msg;
        std::string expected;
    } cases[] = {
        {nullptr, "plain", "plain\n"},
        {nullptr, "ends\n", "ends\n"},
        {nullptr, "", "\n"},
        {(char *)"/usr/bin/tool", "x", "tool: x\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.msg);
        PROGNAME = (char *)c.prog;
        CaptureStderr();
        CaptureStdout();
        EXPECT_EQ(ex_messlog(c.msg, 0, 0), 0);
        EXPECT_EQ(GetCapturedStdout(), c.expected);
        EXPECT_EQ(GetCapturedStderr(), c.expected);
    }
    PROGNAME = nullptr;

    // errno adds its suffix unless the message needed a bigger buffer
    CaptureStderr();
    errno = ENOENT;
    messlog2(0, 0, "short");
    errno = ENOENT;
    messlog2(0, 0, "%s", std::string(5000, 'L').c_str());
    std::string err = GetCapturedStderr();
    EXPECT_EQ(err,
              "short\nSystem error 2: No such file or directory\n" + std::string(5000, 'L') + "\n");
}

TEST(Log, AsprintfSafe)
{
    char *s = asprintf_safe("%s-%d", "a", 7);
    EXPECT_STREQ(s, "a-7");
    free(s);
}

} // namespace
