// keyseal-milter's metrics: what the counters become in the Prometheus text format.
#include "milter/metrics.h"
#include "milter/milter_conf.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <sstream>

namespace
{

using namespace keyseal_milter;

/* value - the sample's value in the text, or -1 when the line is not there */
double value(const std::string &text, const std::string &series)
{
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(series + " ", 0) == 0) return std::stod(line.substr(series.size() + 1));
    return -1;
}

TEST(Metrics, EventsBecomeSamples)
{
    const std::string SIGNED_OK = "keyseal_messages_total{verdict=\"signed\",reason=\"ok\"}";
    const std::string BUCKET = "keyseal_signing_duration_seconds_bucket{le=";
    const struct {
        const char *what;
        void (*event)(Metrics &);
        std::vector<std::pair<std::string, double>> samples; /* -1: not shown */
    } cases[] = {
        {"nothing yet: every series at 0, no per-domain ones",
         [](Metrics &) {},
         {{SIGNED_OK, 0},
          {"keyseal_messages_total{verdict=\"deferred\",reason=\"temporary\"}", 0},
          {BUCKET + "\"+Inf\"}", 0},
          {"keyseal_workers{state=\"idle\"}", 0},
          {"keyseal_domain_messages_total{domain=\"(other)\",verdict=\"signed\"}", -1}}},
        {"a signed message in 3 ms: its buckets are cumulative",
         [](Metrics &m) { metrics_message(m, Outcome::SIGNED, Reason::OK, "a.example", 3000000); },
         {{SIGNED_OK, 1},
          {BUCKET + "\"0.005\"}", 1},
          {BUCKET + "\"1\"}", 1},
          {BUCKET + "\"+Inf\"}", 1},
          {"keyseal_signing_duration_seconds_count", 1},
          {"keyseal_signing_duration_seconds_sum", 0.003}}},
        {"past the last bucket: +Inf alone",
         [](Metrics &m) { metrics_message(m, Outcome::FAILED, Reason::TEMPORARY, "", 40e9); },
         {{BUCKET + "\"30\"}", 0}, {BUCKET + "\"+Inf\"}", 1}}},
        {"a message never timed is counted, not timed",
         [](Metrics &m) { metrics_message(m, Outcome::SKIPPED, Reason::NULL_SENDER, "", -1); },
         {{"keyseal_messages_total{verdict=\"skipped\",reason=\"null_sender\"}", 1},
          {"keyseal_signing_duration_seconds_count", 0}}},
        {"signatures by a=, wherever the tag stands; b= data is no tag",
         [](Metrics &m) {
             metrics_signatures(m, {" v=1; a=ed25519-sha256; d=x; b=Qa=", " a=rsa-sha256; b=x",
                                    " v=1; d=x;\n\tb=ya=rsa-sha256", " v=1;\n\ta=rsa-sha1; b=z"});
         },
         {{"keyseal_signatures_total{algorithm=\"ed25519-sha256\"}", 1},
          {"keyseal_signatures_total{algorithm=\"rsa-sha256\"}", 1},
          {"keyseal_signatures_total{algorithm=\"other\"}", 2}}},
        {"busy workers: the jobs in hand, at most the workers; the rest idle",
         [](Metrics &m) {
             metrics_settings(m, 4, false);
             m.jobs_in_hand = 6;
         },
         {{"keyseal_workers{state=\"busy\"}", 4},
          {"keyseal_workers{state=\"idle\"}", 0},
          {"keyseal_jobs_in_progress", 6}}},
        {"reloads by result; the start is no reload",
         [](Metrics &m) {
             metrics_settings(m, 2, false);
             metrics_reload(m, true);
             metrics_reload(m, false);
             metrics_reload(m, false);
         },
         {{"keyseal_config_reloads_total{result=\"success\"}", 1},
          {"keyseal_config_reloads_total{result=\"failure\"}", 2},
          {"keyseal_workers{state=\"idle\"}", 2}}},
        {"alignment and long lines by kind",
         [](Metrics &m) {
             metrics_alignment(m, AlignmentWarning::MISALIGNED);
             metrics_long_line(m, LongLine::WARN);
             metrics_long_line(m, LongLine::WARN);
         },
         {{"keyseal_alignment_warnings_total{kind=\"misaligned\"}", 1},
          {"keyseal_alignment_warnings_total{kind=\"no_from\"}", 0},
          {"keyseal_long_lines_total{action=\"warn\"}", 2},
          {"keyseal_long_lines_total{action=\"fold\"}", 0}}},
        {"per domain only once asked for; a label value escaped",
         [](Metrics &m) {
             metrics_message(m, Outcome::SIGNED, Reason::OK, "a.example", -1);
             metrics_settings(m, 1, true);
             metrics_message(m, Outcome::SIGNED, Reason::OK, "a.example", -1);
             metrics_message(m, Outcome::FAILED, Reason::SPOOL, "q\"\\.example", -1);
         },
         {{"keyseal_domain_messages_total{domain=\"a.example\",verdict=\"signed\"}", 1},
          {"keyseal_domain_messages_total{domain=\"q\\\"\\\\.example\",verdict=\"failed\"}", 1},
          {"keyseal_domain_messages_total{domain=\"(other)\",verdict=\"signed\"}", 0}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto m = std::make_unique<Metrics>();
        c.event(*m);
        std::string text = render(*m);
        for (const auto &[series, want] : c.samples)
            EXPECT_DOUBLE_EQ(value(text, series), want) << series << "\n" << text;
        /* each metric's samples follow its HELP and TYPE lines */
        std::istringstream in(text);
        std::string family;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("# TYPE ", 0) == 0) family = line.substr(7, line.find(' ', 7) - 7);
            if (line[0] != '#') {
                EXPECT_EQ(line.rfind(family, 0), 0u) << line;
            }
        }
    }
}

std::string domain(int i)
{
    char name[32];
    snprintf(name, sizeof(name), "d%d.example", i);
    return name;
}

TEST(Metrics, DomainTableIsBounded)
{
    auto m = std::make_unique<Metrics>();
    metrics_settings(*m, 1, true);
    for (int i = 0; i < Metrics::DOMAIN_SLOTS + 50; i++)
        metrics_message(*m, Outcome::SIGNED, Reason::OK, domain(i), -1);
    std::string text = render(*m);
    size_t series = 0;
    for (size_t at = 0;
         (at = text.find("\nkeyseal_domain_messages_total{", at)) != std::string::npos; at++)
        series++;
    /* every slot named, the rest together under (other), four verdicts each */
    EXPECT_LE(series, (Metrics::DOMAIN_SLOTS + 1) * 4u);
    double named = 0;
    for (int i = 0; i < Metrics::DOMAIN_SLOTS + 50; i++)
        named += std::max(0.0, value(text, "keyseal_domain_messages_total{domain=\"" + domain(i) +
                                               "\",verdict=\"signed\"}"));
    double other =
        value(text, "keyseal_domain_messages_total{domain=\"(other)\",verdict=\"signed\"}");
    EXPECT_EQ(named + other, Metrics::DOMAIN_SLOTS + 50);
    EXPECT_GE(other, 50);
}

TEST(Metrics, Addresses)
{
    const struct {
        std::string text;
        int family; /* 0: refused */
        std::string host;
        int port;
    } cases[] = {
        {"9901", AF_INET, "127.0.0.1", 9901},  {"10.0.0.5:80", AF_INET, "10.0.0.5", 80},
        {"[::1]:9901", AF_INET6, "::1", 9901}, {"::1:9901", 0, "", 0},
        {"localhost:9901", 0, "", 0},          {"127.0.0.1:0", 0, "", 0},
        {"127.0.0.1:65536", 0, "", 0},         {"127.0.0.1:", 0, "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        sockaddr_storage a;
        bool ok = metrics_address(c.text, a);
        ASSERT_EQ(ok, c.family != 0);
        if (!ok) continue;
        char host[64] = "";
        EXPECT_EQ(a.ss_family, c.family);
        if (c.family == AF_INET) {
            inet_ntop(AF_INET, &((sockaddr_in &)a).sin_addr, host, sizeof(host));
            EXPECT_EQ(ntohs(((sockaddr_in &)a).sin_port), c.port);
        } else {
            inet_ntop(AF_INET6, &((sockaddr_in6 &)a).sin6_addr, host, sizeof(host));
            EXPECT_EQ(ntohs(((sockaddr_in6 &)a).sin6_port), c.port);
        }
        EXPECT_EQ(host, c.host);
    }
}

} // namespace
