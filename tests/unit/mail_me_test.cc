// Runs inside the test sandbox: the spool directory is private to this run, and a
// small tmpfs over it stands in for a full disk.
#include "mailhandler/mail_me.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace
{

using namespace testing::internal;

class Spool : public testing::Test
{
  protected:
    void SetUp() override { halyx_log_init("stderr", 6, 16, 0, nullptr); }
    void TearDown() override { EXPECT_TRUE(spool_files().empty()); }
    mail_me *spool(const std::string &input)
    {
        redirect_stdin(input);
        return mail_stream_to_tmpfile(stdin);
    }
    /* full_spool - a tmpfs over the spool directory holding bytes of room */
    void full_spool(const char *size)
    {
        ASSERT_EQ(mount("tmpfs", MAIL_SPOOL_DIR, "tmpfs", 0, size), 0);
    }
};

TEST_F(Spool, PassesMessagesThroughUnchanged)
{
    const struct {
        const char *name;
        std::string input, expected;
    } cases[] = {
        {"binary body", "From: a\n\n" + std::string("x\0y\r\rz\n", 8) + std::string(20000, '\0'),
         ""},
        {"no line end", "From: a", "From: a\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        mail_me *me = spool(c.input);
        ASSERT_NE(me, nullptr);
        std::string expected = c.expected.empty() ? c.input : c.expected;
        EXPECT_EQ(read_file(me->spool_path), expected);
        int rc = -1;
        EXPECT_EQ(with_stdout([&] { rc = mail_tmpfile_to_stream(me, stdout); }), expected);
        EXPECT_EQ(rc, 0);
        mail_me_free(me);
    }
}

TEST_F(Spool, FailedReplaceKeepsTheOldFile)
{
    full_spool("size=64k"); // room for one copy
    std::string message = "A: 1\n\n" + std::string(40000, 'b');
    mail_me *me = spool(message);
    std::string path = me->spool_path;
    me_header_cut(&me->headers, me->headers.first);
    CaptureStderr();
    EXPECT_EQ(mail_tmpfile_replace(me), -1);
    EXPECT_THAT(GetCapturedStderr(),
                testing::StartsWith("cannot write e-mail into '" MAIL_SPOOL_DIR));
    EXPECT_EQ(me->spool_path, path);
    EXPECT_EQ(spool_files().size(), 1u);
    EXPECT_EQ(read_file(path), message);
    mail_me_free(me);
    EXPECT_TRUE(spool_files().empty());
    ASSERT_EQ(umount(MAIL_SPOOL_DIR), 0);
}

TEST_F(Spool, FullDiskAtTheFinalCloseFailsTheSpool)
{
    /* a small message sits in stdio's buffer until fclose: only that write meets the full disk */
    full_spool("size=4k");
    write_file(MAIL_SPOOL_DIR "/filler", std::string(4096, 'f'));
    CaptureStderr();
    EXPECT_EQ(spool("A: 1\n\nbody\n"), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "cannot save the e-mail's body.\n");
    EXPECT_EQ(spool_files(), std::vector<std::string>{"filler"});
    ASSERT_EQ(umount(MAIL_SPOOL_DIR), 0);
}

TEST_F(Spool, BodyCopyFailureIsLoggedNotReturned)
{
    mail_me *me = spool("A: 1\n\n" + std::string(200000, 'b'));
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    /* nobody reads: the header block fits in the pipe, the body does not */
    fcntl(p[1], F_SETFL, O_NONBLOCK);
    int rc = -1;
    CaptureStderr();
    with_stdout([&] { rc = mail_tmpfile_to_stream(me, stdout); }, p[1]);
    EXPECT_EQ(GetCapturedStderr(),
              "cannot write the e-mail's body into '" + std::string(me->spool_path) + "'.\n");
    EXPECT_EQ(rc, 0);
    close(p[0]);
    mail_me_free(me);
}

} // namespace
