#include "dkim/whitelist.hpp"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using halyx::mail::dkim::Whitelist;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace
{

class WhitelistFile : public testing::Test
{
  protected:
    void SetUp() override
    {
        halyx_log_init("stderr", 6, 16, 0, nullptr);
        path = temp_dir() + "/whitelist";
    }
    Whitelist with(const std::string &text)
    {
        write_file(path, text);
        return Whitelist(path);
    }
    std::string path;
};

TEST_F(WhitelistFile, Check)
{
    std::string binary(5000, '\0');
    binary += "\xff\xfe 10.9.9.9\n";
    struct {
        const char *name;
        std::string text;
        std::vector<std::pair<const char *, bool>> asks;
    } cases[] = {
        {"empty", "", {{"10.0.0.1", false}}},
        {"blank lines", "\n\n  \t\n", {{"10.0.0.1", false}, {"::1", false}}},
        {"one line",
         "10.0.0.0/8 192.168.1.5\n",
         {{"10.1.2.3", true}, {"192.168.1.5", true}, {"192.168.1.6", false}}},
        {"comment words", "# 10.0.0.1 relay\n", {{"10.0.0.1", true}, {"10.0.0.2", false}}},
        {"ipv6 without prefix", "2001:db8::1\n", {{"2001:db8::2", true}, {"10.0.0.1", false}}},
        {"ipv6 host", "2001:db8::1/128\n", {{"2001:db8::1", true}, {"2001:db8::2", false}}},
        {"binary", binary, {{"10.9.9.9", true}, {"10.0.0.1", false}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Whitelist w = with(c.text);
        for (auto [ip, expected] : c.asks)
            EXPECT_EQ(w.check(ip), expected) << ip;
    }
    unlink(path.c_str());
    CaptureStderr();
    EXPECT_FALSE(Whitelist(path).check("10.0.0.1"));
    EXPECT_EQ(GetCapturedStderr(), ""); // a missing file is an empty list, silently
}

TEST_F(WhitelistFile, EditingSavesOnlyOnChange)
{
    struct {
        const char *name, *initial;
        std::function<void(Whitelist &)> edit;
        const char *after; // nullptr: the file must not be rewritten
    } cases[] = {
        {"add present", "10.0.0.0/8\n", [](Whitelist &w) { w.addNetwork("10.0.0.0", 8); }, nullptr},
        {"add new prefix moves to the end", "10.0.0.0/16 1.2.3.4\n",
         [](Whitelist &w) { w.addNetwork("10.0.0.0", 8); }, "1.2.3.4/0\n10.0.0.0/8\n"},
        {"add keeps the text as given", "2001:db8::1/64\n",
         [](Whitelist &w) { w.addNetwork("2001:DB8::1", 64); }, "2001:DB8::1/64\n"},
        {"remove by address", "10.0.0.0/8 host 10.0.0.0/16\n",
         [](Whitelist &w) { w.removeNetwork("10.0.0.0/24"); }, "host\n"},
        {"remove absent", "10.0.0.0/8\n", [](Whitelist &w) { w.removeNetwork("10.0.0.1"); },
         nullptr},
        {"put does not save", "10.0.0.0/8\n",
         [](Whitelist &w) { w.putNetwork(halyx::net::IPAnyNetwork("10.0.0.0/9")); }, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Whitelist w = with(c.initial);
        c.edit(w);
        EXPECT_EQ(read_file(path), c.after ? c.after : c.initial);
    }
}

TEST_F(WhitelistFile, SavedEntriesMeanTheSame)
{
    Whitelist w = with("10.0.0.1 [2001:db8::]/48 relay\n");
    w.save();
    EXPECT_EQ(read_file(path), "10.0.0.1/0\n2001:db8::/48\nrelay\n");
    Whitelist again(path);
    EXPECT_TRUE(again.check("10.0.0.1"));
    EXPECT_FALSE(again.check("10.0.0.2"));
}

TEST_F(WhitelistFile, SaveKeepsOwnerAndMode)
{
    write_file(path, "10.0.0.1\n");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    ASSERT_EQ(chown(path.c_str(), 25, 25), 0);
    Whitelist(path).save();
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, 25u);

    std::string fresh = temp_dir() + "/new/dir/whitelist"; // parents are made too
    Whitelist w(fresh);
    w.addNetwork("10.0.0.0", 8);
    ASSERT_EQ(stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(read_file(fresh), "10.0.0.0/8\n");
}

TEST_F(WhitelistFile, FailedWriteKeepsTheOldFile)
{
    // a file name one byte too long for the temporary copy's buffer
    std::string dir = temp_dir();
    std::string longpath = dir + "/" + std::string(4096 - dir.size() - 8, 'w');
    Whitelist w(longpath);
    CaptureStderr();
    w.addNetwork("10.0.0.1", 32);
    EXPECT_EQ(GetCapturedStderr(),
              "Unable to write DKIM sign whitelist " + longpath + ": File name too long\n");

    // a full disk shows only when the copy is flushed: the old file must survive
    std::string full = temp_dir();
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k"), 0);
    path = full + "/whitelist";
    Whitelist w2 = with("10.0.0.1\n");
    w2.networks.emplace_back("10.0.0.2");
    CaptureStderr();
    w2.save();
    EXPECT_EQ(GetCapturedStderr(),
              "Unable to write DKIM sign whitelist " + path + ": No space left on device\n");
    EXPECT_EQ(read_file(path), "10.0.0.1\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(full), {}), 1);
    ASSERT_EQ(umount(full.c_str()), 0);
}

TEST(WhitelistDefault, CEntryPoint)
{
    // runs inside the test sandbox: /etc/domainkeys is private to this run
    write_file("/etc/domainkeys/whitelist", "192.0.2.0/24\n");
    EXPECT_TRUE(dkim_whitelist_contains("192.0.2.7"));
    EXPECT_FALSE(dkim_whitelist_contains("198.51.100.1"));
    unlink("/etc/domainkeys/whitelist");
    EXPECT_FALSE(dkim_whitelist_contains("192.0.2.7"));
}

} // namespace
