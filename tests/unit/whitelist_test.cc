#include "dkim/whitelist.hpp"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using halyx::mail::dkim::Whitelist;
using namespace testing::internal;

namespace
{

class WhitelistFile : public testing::Test
{
  protected:
    void SetUp() override { halyx_log_init("stderr", 6, 16, 0, nullptr); }
    Whitelist with(const std::string &text)
    {
        write_file(path, text);
        return Whitelist(path);
    }
    std::string path = temp_dir() + "/whitelist";
};

TEST_F(WhitelistFile, ReadsEveryWordSilently)
{
    EXPECT_TRUE(with(std::string(5000, '\0') + "\xff 10.9.9.9").check("10.9.9.9"));
    unlink(path.c_str());
    CaptureStderr();
    EXPECT_FALSE(Whitelist(path).check("10.0.0.1"));
    EXPECT_EQ(GetCapturedStderr(), ""); // a missing file is an empty list, silently
}

TEST_F(WhitelistFile, EditingSavesOnlyOnChange)
{
    const struct {
        const char *initial;
        std::function<void(Whitelist &)> edit;
        const char *after; // nullptr: the same file, not rewritten
    } cases[] = {
        // clang-format off
        {"10.0.0.0/8\n", [](Whitelist &w) { w.addNetwork("10.0.0.0", 8); }, nullptr},
        {"2001:db8::1/64\n", [](Whitelist &w) { w.addNetwork("2001:DB8::1", 64); }, "2001:DB8::1/64\n"},
        {"10.0.0.0/8 host 10.0.0.0/16\n", [](Whitelist &w) { w.removeNetwork("10.0.0.0/24"); }, "host\n"},
        {"10.0.0.0/8\n", [](Whitelist &w) { w.putNetwork(halyx::net::IPAnyNetwork("10.0.0.0/9")); }, nullptr},
        {"10.0.0.1 relay\n", [](Whitelist &w) { w.save(); }, "10.0.0.1/0\nrelay\n"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.initial);
        Whitelist w = with(c.initial);
        struct stat before, after;
        ASSERT_EQ(stat(path.c_str(), &before), 0);
        c.edit(w);
        ASSERT_EQ(stat(path.c_str(), &after), 0);
        EXPECT_EQ(read_file(path), c.after ? c.after : c.initial);
        EXPECT_EQ(after.st_ino == before.st_ino, c.after == nullptr); // a rewrite is a new inode
    }
    EXPECT_FALSE(Whitelist(path).check("10.0.0.2")); // 10.0.0.1/0 still means one address

    std::string fresh = temp_dir() + "/new/dir/whitelist"; // the parents are made too
    Whitelist(fresh).addNetwork("10.0.0.0", 8);
    struct stat st;
    ASSERT_EQ(stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(std::make_pair(st.st_mode & 07777, st.st_uid), std::make_pair(0644u, 0u));
}

TEST_F(WhitelistFile, FailedWriteKeepsTheOldFile)
{
    std::string full = temp_dir(); // runs in the test sandbox: a tiny tmpfs is a full disk
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k"), 0);
    path = full + "/whitelist";
    Whitelist w = with("10.0.0.1\n");
    w.networks.emplace_back("10.0.0.2");
    CaptureStderr();
    w.save();
    EXPECT_EQ(GetCapturedStderr(),
              "Unable to write DKIM sign whitelist " + path + ": No space left on device\n");
    EXPECT_EQ(read_file(path), "10.0.0.1\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(full), {}), 1);
    ASSERT_EQ(umount(full.c_str()), 0);

    std::string dir = temp_dir(); // a name too long for the temporary copy
    CaptureStderr();
    Whitelist(dir + "/" + std::string(4096 - dir.size() - 8, 'w')).addNetwork("10.0.0.1", 32);
    EXPECT_NE(GetCapturedStderr().find(": File name too long\n"), std::string::npos);
}

// keyseal-milter's worker asks message after message in one process: each change of the
// file counts from the next question on, however it was made.
TEST_F(WhitelistFile, EachChangeCountsFromTheNextQuestion)
{
    const std::string file = DK_WHITELIST_PATH;
    /* stamp - the file's modification time set to a fixed second and this nanosecond */
    auto stamp = [](const std::string &f, long ns) {
        const timespec times[2] = {{1000000000, ns}, {1000000000, ns}};
        ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
    };
    const struct {
        const char *name;
        std::function<void()> change;
        const char *ip;
        bool on;
    } steps[] = {
        {"written", [&] { write_file(file, "10.0.0.1\n"), stamp(file, 0); }, "10.0.0.1", true},
        {"unchanged", [] {}, "10.0.0.2", false},
        {"edited in place, the size kept",
         [&] {
             FILE *f = fopen(file.c_str(), "r+");
             fputs("10.0.0.2\n", f), fclose(f), stamp(file, 1);
         },
         "10.0.0.2", true},
        {"replaced, the size and time kept",
         [&] {
             write_file(file + ".new", "10.0.0.3\n"), stamp(file + ".new", 1);
             rename((file + ".new").c_str(), file.c_str());
         },
         "10.0.0.3", true},
        {"removed", [&] { unlink(file.c_str()); }, "10.0.0.3", false},
        {"back", [&] { write_file(file, "10.0.0.4\n"); }, "10.0.0.4", true},
        {"a directory", [&] { unlink(file.c_str()), mkdir(file.c_str(), 0755); }, "10.0.0.4",
         false},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.name);
        step.change();
        EXPECT_EQ(dkim_whitelist_contains(step.ip), step.on);
    }
    rmdir(file.c_str());
}

} // namespace
