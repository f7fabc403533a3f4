#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <syslog.h>
#include <unistd.h>

namespace
{

using namespace testing::internal;

TEST(Log, LevelWordAndEnvironment)
{
    const struct {
        int word;
        const char *env; // nullptr: unset
        int expected;
    } cases[] = {{14, nullptr, 6}, {14, "7", 7}, {14, "3", 6}, {14, "07", 6}, {14, "9", 6},
                 {14, "", 6},      {6, "7", 6},  {11, "5", 5}, {8, "0", 0}};
    LogLocation = "nowhere"; // keeps setlogmask out of it
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.word) + " " + (c.env ? c.env : "(unset)"));
        c.env ? setenv("HALYX_LOG_LEVEL", c.env, 1) : unsetenv("HALYX_LOG_LEVEL");
        halyx_log_set_level(c.word);
        EXPECT_EQ(LogLevel, c.expected);
    }
    unsetenv("HALYX_LOG_LEVEL");
}

TEST(Log, LocationRouting)
{
    for (const char *location : {(const char *)nullptr, "STDERR"}) { // nullptr: before init
        halyx_log_init("console", 6, 16, 0, nullptr);
        LogLocation = location;
        CaptureStderr();
        CaptureStdout();
        halyx_log(LOG_ERR, "%s", "m");
        std::string out = GetCapturedStdout();
        EXPECT_EQ(GetCapturedStderr(), "m\n");
        EXPECT_EQ(out, location ? "" : "m\n"); // before init, stdout too
    }
}

TEST(Log, TraceIdIsExportedForChildren)
{
    unsetenv("HALYX_LOG_TRACE_ID");
    halyx_log_init(nullptr, 14, 16, 64, nullptr);
    std::string expected = std::string("U").append(std::to_string(getpid())); // "unit_tests"
    EXPECT_EQ(LogTraceId, expected);
    EXPECT_EQ(getenv("HALYX_LOG_TRACE_ID"), expected);
    unsetenv("HALYX_LOG_TRACE_ID");
    halyx_log_init("stderr", 6, 16, 0, nullptr);
}

TEST(Log, FatalMessageLosesTheSuffixRatherThanGrow)
{
    CaptureStderr();
    errno = ENOENT;
    messlog2(0, 0, "short");
    errno = ENOENT;
    messlog2(0, 0, "%s", std::string(5000, 'L').c_str());
    EXPECT_EQ(GetCapturedStderr(),
              "short\nSystem error 2: No such file or directory\n" + std::string(5000, 'L') + "\n");
}

} // namespace
