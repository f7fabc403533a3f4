/*
 * metrics - keyseal-milter's counters for a monitoring system, and /metrics, where a
 * Prometheus server reads them (text format 0.0.4) over HTTP.
 *
 * Counting never waits: every counter is a lock-free atomic that the session's threads and
 * the supervisor add to, and the HTTP thread only reads.  metrics() is the program's one
 * Metrics; render() turns any Metrics into the text format (a scrape sees each counter as it
 * is at that moment, not one instant for all of them).  The reasons are a small fixed set
 * (Reason), so the series stay bounded; one series per sender domain is counted only while
 * metrics_per_domain is on, in a table of DOMAIN_SLOTS domains (later ones share
 * domain="(other)").
 *
 * MetricsServer serves /metrics with libmicrohttpd on a thread of its own in the main
 * process (milter/pool.h's table): it inherits the main thread's blocked signals, holds at
 * most CONNECTIONS connections, each for at most IDLE_SECONDS without a request, answers
 * a method other than GET or HEAD with 405 and any other path with 404.  On an address
 * outside loopback the caller's judge (keyseal-milter's: the clients setting) admits each
 * peer.
 * start() returns 0, or -1 with errno (EINVAL: no ADDRESS:PORT, milter_conf.h's
 * metrics_address()); nothing logged, nothing
 * here ends the process.  The endpoint's own results are the server's; the text render()
 * returns is the caller's.
 */
#ifndef KEYSEAL_MILTER_METRICS_H
#define KEYSEAL_MILTER_METRICS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <vector>

struct MHD_Daemon;

namespace keyseal_milter
{

/* what became of a message, as the mail server saw it */
enum class Outcome : uint8_t { SIGNED, SKIPPED, FAILED, DEFERRED, COUNT };
/* why: one of a fixed set (render() names each) */
enum class Reason : uint8_t {
    OK,             /* signed with every selector */
    PARTIAL,        /* signed, but a second selector gave no signature */
    POLICY,         /* the handler's policy: not local, authenticated or whitelisted */
    NULL_SENDER,    /* a bounce: not given to the handler */
    NOT_HOST,       /* the sender domain is no host name */
    UNSIGNABLE,     /* a signed header the signer cannot hash whole */
    SPOOL,          /* the message could not be kept for the handler */
    TEMPORARY,      /* the handler or its helper failed; a retry may succeed */
    PERMANENT,      /* the handler failed the way it would on every try */
    SERVER_REFUSED, /* the mail server refused the header edits */
    COUNT
};
enum class Algorithm : uint8_t { RSA_SHA256, ED25519_SHA256, OTHER, COUNT };
enum class AlignmentWarning : uint8_t { MISALIGNED, NO_FROM, MANY_FROM, COUNT };
enum class LongLine : uint8_t { FOLD, WARN, COUNT };

struct Metrics {
    /* the latency buckets' upper bounds, in seconds (the time limit is 30 s by default) */
    static constexpr double BUCKETS[] = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                         0.5,   1,    2.5,   5,    10,  30};
    static constexpr size_t NBUCKETS = sizeof(BUCKETS) / sizeof(BUCKETS[0]);
    enum { DOMAIN_SLOTS = 1024, DOMAIN_MAX = 253 };

    std::atomic<uint64_t> messages[(int)Outcome::COUNT][(int)Reason::COUNT] = {};
    std::atomic<uint64_t> signatures[(int)Algorithm::COUNT] = {};
    /* not cumulative: render() sums; the last one is +Inf's own */
    std::atomic<uint64_t> latency_buckets[NBUCKETS + 1] = {};
    std::atomic<uint64_t> latency_count{0}, latency_ns{0};
    std::atomic<uint64_t> helper_restarts{0};
    std::atomic<uint64_t> reloads_ok{0}, reloads_failed{0};
    std::atomic<int64_t> last_reload{0};  /* seconds since the epoch; the start counts */
    std::atomic<int64_t> jobs_in_hand{0}; /* sent to the helper, not yet answered */
    std::atomic<int64_t> workers{0};      /* the workers setting */
    std::atomic<uint64_t> alignment[(int)AlignmentWarning::COUNT] = {};
    std::atomic<uint64_t> long_lines[(int)LongLine::COUNT] = {};
    std::atomic<bool> per_domain{false};

    /* one sender domain's counts; state 0 free, 1 being claimed, 2 named */
    struct DomainSlot {
        std::atomic<uint32_t> state{0};
        char name[DOMAIN_MAX + 1] = {};
        std::atomic<uint64_t> messages[(int)Outcome::COUNT] = {};
    };
    DomainSlot domains[DOMAIN_SLOTS];
    std::atomic<uint64_t> other_domains[(int)Outcome::COUNT] = {};
};

/* metrics - the program's counters */
Metrics &metrics();

/* metrics_message - one message's end: what became of it, why, its sender domain ("" for
 * none; counted per domain only while per_domain is on) and the nanoseconds from the end
 * of the message to the answer (negative: not timed, as for one never given to a worker) */
void metrics_message(Metrics &m, Outcome o, Reason r, const std::string &domain, int64_t ns);
/* metrics_signatures - the DKIM-Signature headers a message was signed with, by a= */
void metrics_signatures(Metrics &m, const std::vector<std::string> &headers);
void metrics_alignment(Metrics &m, AlignmentWarning w);
/* metrics_long_line - a message with a line longer than the mail server sends whole */
void metrics_long_line(Metrics &m, LongLine action);
/* metrics_reload - a reload asked for by SIGHUP, and whether it took */
void metrics_reload(Metrics &m, bool ok);
/* metrics_settings - settings in force from now on (at the start, after a good reload) */
void metrics_settings(Metrics &m, int workers, bool per_domain);

/* render - the text format 0.0.4, every metric with its HELP and TYPE lines */
std::string render(const Metrics &m);
/* label_value - a label value escaped for the text format (\\, \", \n) */
std::string label_value(const std::string &v);

class MetricsServer
{
  public:
    enum { CONNECTIONS = 16, IDLE_SECONDS = 5 };
    MetricsServer() = default;
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;
    ~MetricsServer();
    /* start - serve at address (ADDRESS:PORT) from now on; judge says whether a peer may
     * scrape when the address is not a loopback one (called on the HTTP thread) */
    int start(const std::string &address, std::function<bool(const sockaddr *)> judge);
    void stop();

  private:
    MHD_Daemon *daemon_ = nullptr;
    std::function<bool(const sockaddr *)> judge_;
};

} // namespace keyseal_milter

#endif
