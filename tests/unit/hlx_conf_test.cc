// The configuration reader is a library facility neither program calls: one table of the
// file format and its warnings.  Runs inside the test sandbox, where /dev is a private
// tmpfs, so the test may listen on /dev/log itself.  Lookups in a grown and sorted table
// are checked by the conf fuzz target.
#include "conf/hlx_conf.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

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
    // clang-format off
    const std::pair<const char *, const char *> expected[] = {
        {"A", "2"}, {"B", "two words  "}, {"F", "v\r\n"}, {"G", "v"}, {"3C", nullptr}, {"E", nullptr}};
    // clang-format on
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

} // namespace
