#include "milter/metrics.h"

#include "milter/milter_conf.h"

#include <microhttpd.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

namespace keyseal_milter
{

namespace
{

const char *const OUTCOMES[] = {"signed", "skipped", "failed", "deferred"};
const char *const REASONS[] = {"ok",        "partial",       "policy", "null_sender",
                               "not_host",  "unsignable",    "spool",  "temporary",
                               "permanent", "server_refused"};
const char *const ALGORITHMS[] = {"rsa-sha256", "ed25519-sha256", "other"};
const char *const ALIGNMENT[] = {"misaligned", "no_from", "many_from"};
const char *const LONG_LINES[] = {"fold", "warn"};

/* the pairs a message can end with: each is shown from the start, at 0, so that a rate over
 * a series that has just begun is not lost */
const std::pair<Outcome, Reason> PAIRS[] = {{Outcome::SIGNED, Reason::OK},
                                            {Outcome::SIGNED, Reason::PARTIAL},
                                            {Outcome::SKIPPED, Reason::POLICY},
                                            {Outcome::SKIPPED, Reason::NULL_SENDER},
                                            {Outcome::SKIPPED, Reason::NOT_HOST},
                                            {Outcome::FAILED, Reason::UNSIGNABLE},
                                            {Outcome::FAILED, Reason::SPOOL},
                                            {Outcome::FAILED, Reason::TEMPORARY},
                                            {Outcome::FAILED, Reason::PERMANENT},
                                            {Outcome::FAILED, Reason::SERVER_REFUSED},
                                            {Outcome::DEFERRED, Reason::SPOOL},
                                            {Outcome::DEFERRED, Reason::TEMPORARY},
                                            {Outcome::DEFERRED, Reason::SERVER_REFUSED}};

constexpr auto RELAXED = std::memory_order_relaxed;

void add(std::atomic<uint64_t> &c)
{
    c.fetch_add(1, RELAXED);
}

/* domain_counts - the domain's slot, claimed on its first message; NULL when the probe
 * finds no room (the domain is counted as "(other)") */
Metrics::DomainSlot *domain_counts(Metrics &m, const std::string &domain)
{
    if (domain.empty() || domain.size() > Metrics::DOMAIN_MAX) return nullptr;
    size_t h = std::hash<std::string>{}(domain);
    for (size_t probe = 0; probe < 64; probe++) {
        Metrics::DomainSlot &slot = m.domains[(h + probe) % Metrics::DOMAIN_SLOTS];
        uint32_t state = slot.state.load(std::memory_order_acquire);
        if (state == 0) {
            if (slot.state.compare_exchange_strong(state, 1, std::memory_order_acquire)) {
                memcpy(slot.name, domain.c_str(), domain.size() + 1);
                slot.state.store(2, std::memory_order_release);
                return &slot;
            }
        }
        /* another thread is naming the slot: a few stores away */
        while ((state = slot.state.load(std::memory_order_acquire)) == 1)
            sched_yield();
        if (domain == slot.name) return &slot;
    }
    return nullptr;
}

void help(std::string &out, const char *name, const char *type, const char *text)
{
    out += "# HELP ";
    out += name;
    out += " ";
    out += text;
    out += "\n# TYPE ";
    out += name;
    out += " ";
    out += type;
    out += "\n";
}

/* sample - one line: name{labels} value; labels already escaped and joined */
void sample(std::string &out, const char *name, const std::string &labels, double value)
{
    char number[64];
    snprintf(number, sizeof(number), "%.17g", value);
    out += name;
    if (!labels.empty()) out.append("{").append(labels).append("}");
    out += " ";
    out += number;
    out += "\n";
}

void sample(std::string &out, const char *name, const std::string &labels, uint64_t value)
{
    char number[32];
    snprintf(number, sizeof(number), " %" PRIu64 "\n", value);
    out += name;
    if (!labels.empty()) out.append("{").append(labels).append("}");
    out += number;
}

std::string label(const char *name, const std::string &value)
{
    return std::string(name) + "=\"" + label_value(value) + "\"";
}

bool loopback(const sockaddr_storage &a)
{
    if (a.ss_family == AF_INET)
        return (ntohl(((const sockaddr_in &)a).sin_addr.s_addr) >> 24) == 127;
    const in6_addr &v6 = ((const sockaddr_in6 &)a).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

/* allowed - the accept policy: a peer of an address outside loopback is judged */
MHD_Result allowed(void *cls, const sockaddr *addr, socklen_t)
{
    auto *judge = static_cast<const std::function<bool(const sockaddr *)> *>(cls);
    return !*judge || (*judge)(addr) ? MHD_YES : MHD_NO;
}

MHD_Result answer(MHD_Connection *c, unsigned status, const std::string &body,
                  const char *type = "text/plain; charset=utf-8")
{
    MHD_Response *r =
        MHD_create_response_from_buffer(body.size(), (void *)body.data(), MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    MHD_Result ok = MHD_queue_response(c, status, r);
    MHD_destroy_response(r);
    return ok;
}

/* request - every request is answered at once, without reading what it uploads */
MHD_Result request(void *, MHD_Connection *c, const char *url, const char *method, const char *,
                   const char *, size_t *, void **)
{
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return answer(c, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET /metrics is served\n");
    if (strcmp(url, "/metrics") != 0)
        return answer(c, MHD_HTTP_NOT_FOUND, "only /metrics is served\n");
    return answer(c, MHD_HTTP_OK, render(metrics()), "text/plain; version=0.0.4; charset=utf-8");
}

} // namespace

Metrics &metrics()
{
    static Metrics m;
    return m;
}

void metrics_message(Metrics &m, Outcome o, Reason r, const std::string &domain, int64_t ns)
{
    add(m.messages[(int)o][(int)r]);
    if (ns >= 0) {
        double seconds = (double)ns / 1e9;
        size_t b = 0;
        while (b < Metrics::NBUCKETS && seconds > Metrics::BUCKETS[b])
            b++;
        add(m.latency_buckets[b]);
        m.latency_ns.fetch_add((uint64_t)ns, RELAXED);
    }
    if (!m.per_domain.load(RELAXED) || domain.empty()) return;
    Metrics::DomainSlot *slot = domain_counts(m, domain);
    add(slot != nullptr ? slot->messages[(int)o] : m.other_domains[(int)o]);
}

void metrics_signatures(Metrics &m, const std::vector<std::string> &headers)
{
    for (const std::string &h : headers) {
        /* the a= tag: after "DKIM-Signature:", ';' or folding white space */
        Algorithm a = Algorithm::OTHER;
        for (size_t at = h.find("a="); at != std::string::npos; at = h.find("a=", at + 2)) {
            size_t before = h.find_last_not_of(" \t\r\n", at == 0 ? 0 : at - 1);
            if (at > 0 && before != std::string::npos && h[before] != ';' && h[before] != ':')
                continue;
            std::string v = h.substr(at + 2, h.find(';', at) - at - 2);
            if (v == "rsa-sha256") a = Algorithm::RSA_SHA256;
            if (v == "ed25519-sha256") a = Algorithm::ED25519_SHA256;
            break;
        }
        add(m.signatures[(int)a]);
    }
}

void metrics_alignment(Metrics &m, AlignmentWarning w)
{
    add(m.alignment[(int)w]);
}

void metrics_long_line(Metrics &m, LongLine action)
{
    add(m.long_lines[(int)action]);
}

void metrics_reload(Metrics &m, bool ok)
{
    add(ok ? m.reloads_ok : m.reloads_failed);
}

void metrics_settings(Metrics &m, int workers, bool per_domain)
{
    m.last_reload.store((int64_t)time(nullptr), RELAXED);
    m.workers.store(workers, RELAXED);
    m.per_domain.store(per_domain, RELAXED);
}

std::string label_value(const std::string &v)
{
    std::string out;
    for (char c : v) {
        if (c == '\\' || c == '"')
            out += '\\', out += c;
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string render(const Metrics &m)
{
    std::string out;
    out.reserve(4096);
    help(out, "keyseal_messages_total", "counter",
         "Messages keyseal-milter answered, by what became of them (verdict) and why (reason).");
    for (auto [o, r] : PAIRS)
        sample(out, "keyseal_messages_total",
               label("verdict", OUTCOMES[(int)o]) + "," + label("reason", REASONS[(int)r]),
               m.messages[(int)o][(int)r].load(RELAXED));

    help(out, "keyseal_signatures_total", "counter",
         "DKIM signatures added to messages, by signing algorithm.");
    for (int a = 0; a < (int)Algorithm::COUNT; a++)
        sample(out, "keyseal_signatures_total", label("algorithm", ALGORITHMS[a]),
               m.signatures[a].load(RELAXED));

    help(out, "keyseal_signing_duration_seconds", "histogram",
         "Time from the end of a message to keyseal-milter's answer, for messages given to "
         "the signing workers.");
    uint64_t cumulative = 0;
    for (size_t b = 0; b <= Metrics::NBUCKETS; b++) {
        cumulative += m.latency_buckets[b].load(RELAXED);
        char le[32];
        if (b < Metrics::NBUCKETS)
            snprintf(le, sizeof(le), "%g", Metrics::BUCKETS[b]);
        else
            snprintf(le, sizeof(le), "+Inf");
        sample(out, "keyseal_signing_duration_seconds_bucket", label("le", le), cumulative);
    }
    sample(out, "keyseal_signing_duration_seconds_sum", "",
           (double)m.latency_ns.load(RELAXED) / 1e9);
    sample(out, "keyseal_signing_duration_seconds_count", "", cumulative);

    help(out, "keyseal_helper_restarts_total", "counter",
         "Signing helper processes started to replace one that ended.");
    sample(out, "keyseal_helper_restarts_total", "", m.helper_restarts.load(RELAXED));

    help(out, "keyseal_config_reloads_total", "counter",
         "Reloads of the settings asked for by SIGHUP, by result.");
    sample(out, "keyseal_config_reloads_total", label("result", "success"),
           m.reloads_ok.load(RELAXED));
    sample(out, "keyseal_config_reloads_total", label("result", "failure"),
           m.reloads_failed.load(RELAXED));
    help(out, "keyseal_config_last_reload_success_timestamp_seconds", "gauge",
         "When the settings in force were loaded (the start, or the last good reload).");
    sample(out, "keyseal_config_last_reload_success_timestamp_seconds", "",
           (uint64_t)m.last_reload.load(RELAXED));

    int64_t workers = m.workers.load(RELAXED), jobs = m.jobs_in_hand.load(RELAXED);
    int64_t busy = std::min(std::max<int64_t>(jobs, 0), workers);
    help(out, "keyseal_workers", "gauge",
         "Signing workers the settings allow, busy with a message or free for one.");
    sample(out, "keyseal_workers", label("state", "busy"), (uint64_t)busy);
    sample(out, "keyseal_workers", label("state", "idle"), (uint64_t)(workers - busy));
    help(out, "keyseal_jobs_in_progress", "gauge",
         "Messages handed to the signing helper and not yet answered (more than the workers: "
         "messages waiting for one).");
    sample(out, "keyseal_jobs_in_progress", "", (uint64_t)std::max<int64_t>(jobs, 0));

    help(out, "keyseal_alignment_warnings_total", "counter",
         "Signed messages whose signature will not count for the From: domain under DMARC, by "
         "kind.");
    for (int w = 0; w < (int)AlignmentWarning::COUNT; w++)
        sample(out, "keyseal_alignment_warnings_total", label("kind", ALIGNMENT[w]),
               m.alignment[w].load(RELAXED));

    help(out, "keyseal_long_lines_total", "counter",
         "Messages with a line longer than the mail server sends unbroken, by what was done.");
    for (int a = 0; a < (int)LongLine::COUNT; a++)
        sample(out, "keyseal_long_lines_total", label("action", LONG_LINES[a]),
               m.long_lines[a].load(RELAXED));

    bool any = false;
    for (const auto &slot : m.domains) {
        if (slot.state.load(std::memory_order_acquire) != 2) continue;
        if (!any)
            help(out, "keyseal_domain_messages_total", "counter",
                 "Messages by envelope sender domain and verdict (metrics_per_domain).");
        any = true;
        for (int o = 0; o < (int)Outcome::COUNT; o++)
            sample(out, "keyseal_domain_messages_total",
                   label("domain", slot.name) + "," + label("verdict", OUTCOMES[o]),
                   slot.messages[o].load(RELAXED));
    }
    for (int o = 0; any && o < (int)Outcome::COUNT; o++)
        sample(out, "keyseal_domain_messages_total",
               label("domain", "(other)") + "," + label("verdict", OUTCOMES[o]),
               m.other_domains[o].load(RELAXED));
    return out;
}

MetricsServer::~MetricsServer()
{
    stop();
}

int MetricsServer::start(const std::string &address, std::function<bool(const sockaddr *)> judge)
{
    sockaddr_storage addr;
    if (!metrics_address(address, addr)) return errno = EINVAL, -1;
    judge_ = loopback(addr) ? nullptr : std::move(judge);
    unsigned flags = MHD_USE_AUTO_INTERNAL_THREAD | (addr.ss_family == AF_INET6 ? MHD_USE_IPv6 : 0);
    daemon_ =
        MHD_start_daemon(flags, 0, allowed, &judge_, request, nullptr, MHD_OPTION_SOCK_ADDR, &addr,
                         MHD_OPTION_CONNECTION_LIMIT, (unsigned)CONNECTIONS,
                         MHD_OPTION_CONNECTION_TIMEOUT, (unsigned)IDLE_SECONDS, MHD_OPTION_END);
    if (daemon_ == nullptr) return errno = errno != 0 ? errno : EADDRINUSE, -1;
    return 0;
}

void MetricsServer::stop()
{
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

} // namespace keyseal_milter
