// Runs inside the test sandbox: /etc is an overlay and /dev a private tmpfs, so the test
// may write /etc/hlx/hlx.conf and listen on /dev/log itself.
#include "conf/hlx_conf.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

/* The syslog lines of one test: "<priority>...: message" texts. */
struct Syslog {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    Syslog()
    {
        sockaddr_un addr{AF_UNIX, "/dev/log"};
        unlink(addr.sun_path);
        bind(fd, (sockaddr *)&addr, sizeof(addr));
        halyx_log_init(nullptr, 6, 16, 0, "conf_test");
    }
    ~Syslog() { close(fd); }
    std::vector<std::string> lines()
    {
        std::vector<std::string> out;
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0;) {
            std::string s(buf, n);
            out.push_back(s.substr(0, s.find('>') + 1) + s.substr(s.find("]: ") + 3));
        }
        return out;
    }
};

conf_table *read_conf(const std::string &text)
{
    std::string path = temp_dir() + "/hlx.conf";
    write_file(path, text);
    conf_table *t = (conf_table *)calloc(1, sizeof(conf_table));
    EXPECT_EQ(conf_read_file_r(path.c_str(), t), 0);
    return t;
}

TEST(Conf, FileFormat)
{
    Syslog log;
    conf_table *t =
        read_conf("A 1\n# x\n\n  B  two words  # c\n3C\nD\nE#\n-X 1\nA 2\nF v\r\nG v #\n");
    const std::pair<const char *, const char *> expected[] = {{"A", "2"},      {"B", "two words  "},
                                                              {"F", "v\r\n"},  {"G", "v"},
                                                              {"3C", nullptr}, {"E", nullptr}};
    for (auto [name, value] : expected) {
        const char *got = conf_get_r(name, t);
        EXPECT_EQ(got ? std::string(got) : "(null)", value ? value : "(null)") << name;
    }
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "<12>Invalid variable definition 3C\n\nExpected a value",
                  "<12>Invalid variable definition D\n\nExpected a value",
                  "<12>Invalid variable definition E#\n\nExpected a space after variable name\n",
                  "<12>Invalid variable definition -X 1\n\nExpected a space after variable name\n",
              }));
    conf_free_r(t);
}

std::string name(int i)
{
    return std::string("N").append(std::to_string(i));
}

TEST(Conf, GrowthAndLookupsBeforeAndAfterSorting)
{
    conf_table *t = (conf_table *)calloc(1, sizeof(conf_table));
    for (int i = 45; i > 0; i--) // past 20 and 40 slots, in descending order
        ASSERT_EQ(conf_set_r(name(i).c_str(), std::to_string(i).c_str(), t), 0);
    EXPECT_EQ(t->count, 45u);
    EXPECT_EQ(t->sorted, 0);
    for (int pass = 0; pass < 2; pass++, conf_finalize_r(t)) {
        for (int i = 1; i <= 45; i++)
            EXPECT_STREQ(conf_get_r(name(i).c_str(), t), std::to_string(i).c_str());
        EXPECT_EQ(conf_get_r("N0", t), nullptr);
        EXPECT_EQ(conf_get_r("n1", t), nullptr);
    }
    EXPECT_EQ(t->sorted, 1);
    conf_free_r(t); // walks every slot: the sanitizer build checks the zeroed growth
}

TEST(Conf, ProcessWideViewAndDefaults)
{
    Syslog log;
    std::filesystem::remove_all("/etc/hlx");
    EXPECT_EQ(hlxConfGet("SA_MAX_MAIL_SIZE"), nullptr);
    EXPECT_STREQ(hlxConfGetDefaultByIndex(SA_MAX_MAIL_SIZE), "256000");
    EXPECT_STREQ(hlxConfGetDefault("_MIN_POSSIBLE_HLX_CONF_VAR_NAME"),
                 "_MIN_POSSIBLE_HLX_CONF_VAR_VALUE");
    EXPECT_EQ(hlxConfGetDefault("_MAX_POSSIBLE_HLX_CONF_VAR_NAME"), nullptr);
    EXPECT_EQ(log.lines().back(),
              "<19>variable '_MAX_POSSIBLE_HLX_CONF_VAR_NAME' was found neither in "
              "/etc/hlx/hlx.conf, nor in compile-time defaults");

    // the failed load is retried once the file exists
    std::filesystem::create_directories("/etc/hlx");
    write_file(HLX_CONF_PATH, "SA_MAX_MAIL_SIZE 1000\nCUSTOM x\n");
    EXPECT_STREQ(hlxConfGetDefault("SA_MAX_MAIL_SIZE"), "1000");
    EXPECT_STREQ(hlxConfGetByIndex(SA_MAX_MAIL_SIZE), "1000");
    EXPECT_STREQ(hlxConfGetDefaultByIndex(HTTPD_SERVICE), "httpd");
    EXPECT_STREQ(hlxConfGet("CUSTOM"), "x");
    EXPECT_EQ(hlxConfGetDefault("CUSTOM"), nullptr); // in the file, but not a known name
    EXPECT_EQ(hlxConfGetByIndex(31), nullptr);
}

} // namespace
