// keyseal-milter's settings: what a file means, and every mistake named with its line.
#include "milter/milter_conf.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

namespace
{

using keyseal_milter::ConfigError;

TEST(MilterConf, SettingsAndMistakesByLine)
{
    halyx_log_init("nowhere", LOG_INFO, LOG_MAIL, 0, nullptr);
    std::string dir = temp_dir(), conf = dir + "/milter.conf", map = dir + "/selectors";
    write_file(map, "# moving to a new key\nexample.org s2 # since November\n\nexample.net\n");
    const struct {
        std::string text, error, context_org; /* error "": loads; context of example.org */
    } cases[] = {
        {"", "", "dkimsel=default"},
        {"# all defaults\nselector s1\nstrict yes\ntimeout 5\n", "", "dkimsel=s1"},
        {"selector s1\n\ntimeout 0\n", ":3: timeout takes seconds from 1 to 3600", ""},
        {"strict maybe\n", ":1: strict takes yes or no", ""},
        {"socket /run/x.sock\n", ":1: socket takes unix:PATH or inet:PORT@HOST", ""},
        {"selector ../x\n", ":1: selector '../x' is no name", ""},
        {"selector s1\nsockt unix:/x\n", ":2: unknown setting 'sockt'", ""},
        {"# fine\n3C\nselector s1\n", ":2: expected a name, blanks and a value", ""},
        {"selector_map " + map + "\n", "selectors:4: expected DOMAIN SELECTOR", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        write_file(conf, c.text);
        try {
            keyseal_milter::Config got = keyseal_milter::load(conf);
            EXPECT_EQ(c.error, "");
            EXPECT_EQ(got.context("example.org"), c.context_org);
        } catch (const ConfigError &e) {
            EXPECT_NE(c.error, "");
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
    write_file(map, "example.org s2\n");
    write_file(conf, "selector_map " + map + "\n");
    auto mapped = keyseal_milter::load(conf);
    EXPECT_EQ(mapped.context("example.org") + " " + mapped.context("example.com"),
              "dkimsel=s2 dkimsel=default");
}

} // namespace
