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
        {"selector rsa1 ed1\n", "", "dkimsel=rsa1"},
        {"selector a b c\n", ":1: expected one or two selectors", ""},
        {"selector a,b\n", ":1: selector 'a,b' is no name: it holds ','", ""},
        {"workers 0\n", ":1: workers takes a number from 1 to 1000", ""},
        {"workers 12x\n", ":1: workers takes a number from 1 to 1000", ""},
        {"clients 10.0.0.0/8 relay\n", ":1: 'relay' is no network", ""},
        /* the whitelist's reader takes an unreadable prefix as 0: here that would be everyone */
        {"clients 10.0.0.0/x\n", ":1: '10.0.0.0/x' is no network", ""},
        {"clients 10.0.0.0/33\n", ":1: '10.0.0.0/33' is no network", ""},
        {"clients ::ffff:10.0.0.5\n", ":1: '::ffff:10.0.0.5' is an IPv4 client", ""},
        {"headers To Subject\n", ":1: headers must name From", ""},
        {"headers From X:Y\n", ":1: 'X:Y' is no header field name", ""},
        {"signing_domain from\n", ":1: signing_domain takes envelope or header", ""},
        {"selector_map /nonexistent/map\n", "/nonexistent/map: No such file", ""},
        {"metrics [::1]:9901\nmetrics_per_domain yes\n", "", "dkimsel=default"},
        {"metrics localhost:9901\n", ":1: metrics takes ADDRESS:PORT", ""},
        {"metrics 127.0.0.1:99999\n", ":1: metrics takes ADDRESS:PORT", ""},
        {"metrics_per_domain some\n", ":1: metrics_per_domain takes yes or no", ""},
        {"long_lines warn\nline_length_limit 0\n", "", "dkimsel=default"},
        {"long_lines cut\n", ":1: long_lines takes fold or warn", ""},
        /* a continuation line would have no room after its space */
        {"line_length_limit 1\n", ":1: line_length_limit takes 0 (no limit) or a number", ""},
        {"line_length_limit -5\n", ":1: line_length_limit takes 0 (no limit) or a number", ""},
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

    /* the map's domains as mail servers compare them; two selectors sign twice */
    write_file(map, "Example.ORG. rsa2 ed2\n");
    write_file(conf, "selector_map " + map + "\nselector d1 d2\n");
    auto dual = keyseal_milter::load(conf);
    EXPECT_EQ(dual.selectors_for("example.org"), (std::vector<std::string>{"rsa2", "ed2"}));
    EXPECT_EQ(dual.selectors_for("example.com"), (std::vector<std::string>{"d1", "d2"}));
    write_file(map, "../x s1\n");
    EXPECT_THROW(keyseal_milter::load(conf), ConfigError);

    /* a port alone listens on loopback; clients admit by network, an address alone is one,
     * a prefix of 0 the whole family; an IPv4 peer of an IPv6 socket is its IPv4 address */
    const std::string unix_socket = MILTER_DEFAULT_SOCKET;
    const struct {
        std::string text, socket, allowed, refused;
    } nets[] = {
        {"socket inet:8891\n", "inet:8891@127.0.0.1", "127.0.0.1", "10.0.0.6"},
        {"socket inet:8891@0.0.0.0\nclients 10.0.0.5 127.0.0.0/8\n", "inet:8891@0.0.0.0",
         "10.0.0.5", "10.0.0.6"},
        {"clients 2001:db8::1\n", unix_socket, "2001:db8::1", "2001:db8::2"},
        {"clients 0.0.0.0/0\n", unix_socket, "203.0.113.9", "2001:db8::1"},
        {"clients ::/0\n", unix_socket, "2001:db8::1", "::ffff:10.0.0.5"},
        {"clients 10.0.0.0/8\n", unix_socket, "::ffff:10.1.2.3", "::ffff:11.0.0.1"},
        {"clients 192.0.2.0/25\n", unix_socket, "192.0.2.127", "192.0.2.128"},
    };
    for (const auto &n : nets) {
        SCOPED_TRACE(n.text);
        write_file(conf, n.text);
        auto c = keyseal_milter::load(conf);
        EXPECT_EQ(c.socket, n.socket);
        EXPECT_TRUE(c.client_allowed(n.allowed));
        EXPECT_FALSE(c.client_allowed(n.refused));
    }
}

} // namespace
