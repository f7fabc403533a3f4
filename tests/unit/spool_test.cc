// Runs inside the test sandbox: the spool directory is private to this run.
#include "mailhandler/mail_me.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/mount.h>
#include <unistd.h>

namespace
{

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class Spool : public testing::Test
{
  protected:
    void SetUp() override
    {
        halyx_log_init("stderr", 6, 16, 0, nullptr);
        ASSERT_TRUE(spool_files().empty());
    }
    void TearDown() override { EXPECT_TRUE(spool_files().empty()); }

    mail_me *spool(const std::string &input)
    {
        redirect_stdin(input);
        return mail_stdin_to_tmpfile();
    }
    std::string output(mail_me *me)
    {
        int rc = -1;
        std::string out = with_stdio("", [&] { rc = mail_tmpfile_to_stdout(me); });
        EXPECT_EQ(rc, 0);
        return out;
    }
};

TEST_F(Spool, PassesMessagesThroughUnchanged)
{
    std::string binary_body = std::string("x\0y\r\rz\n", 8) + std::string(20000, '\0') + "end";
    std::string longline = "X-Long: " + std::string(70000, 'v') + "\r\n";
    struct {
        const char *name;
        std::string input, expected;
    } cases[] = {
        {"crlf", "From: a@b\r\nSubject: s\r\n\tfold\r\n\r\nbody\r\n.\r\n", ""},
        {"lf", "From: a@b\n\nline\n\nline\n", ""},
        {"binary body", "From: a@b\n\n" + binary_body, ""},
        {"long header", longline + "\r\nbody", ""},
        {"header only", "From: a@b\n", "From: a@b\n\n"},
        {"no line end", "From: a@b", "From: a@b\n"},
        {"empty", "", "\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        mail_me *me = spool(c.input);
        ASSERT_NE(me, nullptr);
        std::string expected = c.expected.empty() ? c.input : c.expected;
        EXPECT_EQ(read_file(me->spool_path), expected);
        EXPECT_EQ(output(me), expected);
        mail_me_free(me);
    }
}

TEST_F(Spool, ReplaceRewritesFromTheList)
{
    mail_me *me = spool("A: 1\r\n fold\r\nB: 2\r\n\r\nbody\r\n");
    ASSERT_NE(me, nullptr);
    std::string old_path = me->spool_path;
    me_header_cut(&me->headers, me->headers.first);
    me_header_add(&me->headers, 1, nullptr, "New: x\n");
    ASSERT_EQ(mail_tmpfile_replace(me), 0);
    EXPECT_NE(old_path, me->spool_path);
    EXPECT_EQ(std::string(me->spool_path).rfind(MAIL_SPOOL_DIR "/message", 0), 0u);
    EXPECT_NE(access(old_path.c_str(), F_OK), 0);
    EXPECT_EQ(spool_files().size(), 1u);
    EXPECT_EQ(output(me), "New: x\nB: 2\r\n\r\nbody\r\n");
    mail_me_free(me);
}

TEST_F(Spool, FailedReplaceKeepsTheOldFile)
{
    // a spool directory too small for a second copy: the rewrite runs out of space
    ASSERT_EQ(mount("tmpfs", MAIL_SPOOL_DIR, "tmpfs", 0, "size=64k"), 0);
    std::string body(40000, 'b');
    mail_me *me = spool("A: 1\n\n" + body);
    ASSERT_NE(me, nullptr);
    std::string path = me->spool_path;
    me_header_cut(&me->headers, me->headers.first);
    CaptureStderr();
    EXPECT_EQ(mail_tmpfile_replace(me), -1);
    std::string log = GetCapturedStderr();
    EXPECT_NE(log.find("cannot write e-mail into '" MAIL_SPOOL_DIR "/message"), std::string::npos);
    EXPECT_EQ(me->spool_path, path);
    EXPECT_EQ(spool_files().size(), 1u);
    EXPECT_EQ(read_file(path), "A: 1\n\n" + body);
    mail_me_free(me);
    EXPECT_TRUE(spool_files().empty());
    ASSERT_EQ(umount(MAIL_SPOOL_DIR), 0);
}

TEST_F(Spool, MissingSpoolDirectory)
{
    ASSERT_EQ(mount("tmpfs", "/usr/local/hlx/handlers", "tmpfs", 0, nullptr), 0);
    CaptureStderr();
    EXPECT_EQ(spool("A: 1\n\nb"), nullptr);
    // mkstemp fills in the six characters even when it fails
    EXPECT_THAT(GetCapturedStderr(),
                testing::MatchesRegex("cannot create temporary file '" MAIL_SPOOL_DIR
                                      "/message......': \\(2\\) No such file or directory\n"));
    ASSERT_EQ(umount("/usr/local/hlx/handlers"), 0);
}

TEST_F(Spool, ClosedStdoutDuringBodyCopy)
{
    mail_me *me = spool("A: 1\n\n" + std::string(100000, 'b'));
    ASSERT_NE(me, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[0]);
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    dup2(p[1], STDOUT_FILENO);
    close(p[1]);
    CaptureStderr();
    int rc = mail_tmpfile_to_stdout(me);
    std::string log = GetCapturedStderr();
    clearerr(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(log, "cannot write the e-mail's body into '" + std::string(me->spool_path) + "'.\n");
    mail_me_free(me);
}

TEST_F(Spool, RawCopies)
{
    redirect_stdin("raw\n\0bytes");
    char *path = stdin_to_tmpfile();
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(read_file(path), "raw\n");
    unlink(path);
    free(path);

    std::string dir = temp_dir();
    write_file(dir + "/in", "0123456789");
    for (size_t limit : {0, 4, 10, 20}) {
        SCOPED_TRACE(limit);
        int in = open((dir + "/in").c_str(), O_RDONLY);
        int out = open((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(write_fd_to_fd(in, out, limit), 0);
        close(in);
        close(out);
        EXPECT_EQ(read_file(dir + "/out"), std::string("0123456789").substr(0, limit ? limit : 10));
    }
    EXPECT_EQ(write_fd_to_fd(-1, 1, 0), -1);
    EXPECT_EQ(write_fp_to_fp(nullptr, stdout), -1);
}

} // namespace
