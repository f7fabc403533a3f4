// The selector map: one domain's line rewritten with every other line kept, the result read
// back as keyseal-milter reads it, and a running keyseal-milter asked to read it again.
#include "milter/selector_map.h"
#include "test_util.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const char MISSING[] = "\x01"; /* no map file before the rewrite */

TEST(SelectorMap, RewriteKeepsEveryOtherLine)
{
    std::string map = temp_dir() + "/selectors";
    const struct {
        std::string before, domain;
        std::vector<std::string> selectors;
        std::string after;
    } cases[] = {
        {"# keys\nexample.org s1 # old\n\nexample.net n1\n",
         "example.org",
         {"s2"},
         "# keys\nexample.org s2\n\nexample.net n1\n"},
        /* the domain as keyseal-milter compares it; each of its lines replaced */
        {"Example.ORG. s1\nexample.org s0\n",
         "example.org",
         {"rsa2", "ed1"},
         "example.org rsa2 ed1\nexample.org rsa2 ed1\n"},
        {"example.net n1", "example.org", {"s2"}, "example.net n1\nexample.org s2\n"},
        {"# a comment naming example.org s1\n",
         "example.org",
         {"s2"},
         "# a comment naming example.org s1\nexample.org s2\n"},
        {"sub.example.org s1\n", "example.org", {"s2"}, "sub.example.org s1\nexample.org s2\n"},
        {MISSING, "example.org", {"s2"}, "example.org s2\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before);
        unlink(map.c_str());
        if (c.before != MISSING) write_file(map, c.before);
        ASSERT_EQ(keyseal_milter::set_selectors(map, c.domain, c.selectors), 0);
        EXPECT_EQ(read_file(map), c.after);
        EXPECT_EQ(keyseal_milter::read_selector_map(map, true).at(c.domain), c.selectors);
    }
    /* the rewritten map keeps the mode it was given; a map in no directory is not made */
    chmod(map.c_str(), 0640);
    ASSERT_EQ(keyseal_milter::set_selectors(map, "example.org", {"s3"}), 0);
    struct stat st;
    ASSERT_EQ(stat(map.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(keyseal_milter::set_selectors(temp_dir() + "/none/selectors", "a.org", {"s"}), -1);
}

TEST(SelectorMap, ReloadSignalsTheRunningProcess)
{
    if (access("/run/systemd/system", F_OK) == 0) GTEST_SKIP() << "reloads through systemctl";
    std::string dir = temp_dir(), pid_file = dir + "/keyseal-milter.pid";
    EXPECT_EQ(keyseal_milter::reload_milter(""), "its pid_file is none, so no process to signal");
    EXPECT_EQ(keyseal_milter::reload_milter(pid_file),
              "no process id in " + pid_file + " (is it running?)");

    sigset_t hup, old;
    sigemptyset(&hup);
    sigaddset(&hup, SIGHUP);
    sigprocmask(SIG_BLOCK, &hup, &old);
    pid_t child = fork();
    if (child == 0) {
        int sig = 0;
        _exit(sigwait(&hup, &sig) == 0 && sig == SIGHUP ? 0 : 1);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    std::ofstream(pid_file) << child << "\n";
    EXPECT_EQ(keyseal_milter::reload_milter(pid_file), "");
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace
