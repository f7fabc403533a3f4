/*
 * milter_conf - keyseal-milter's settings: /etc/keyseal/milter.conf, read with the
 * project's configuration reader ("name value" lines, '#' comments), and the per-domain
 * selector map it names (read by selector_map.h).
 *
 * load() fills a Config from the file, defaults where a setting is absent (and all of them
 * when the file at MILTER_CONF_PATH is not there; a file named otherwise must exist); it
 * throws ConfigError ("FILE:LINE: why") for a malformed line, an unknown name or a bad
 * value, so that nothing starts (or is reloaded) on a half-read configuration.  A Config is
 * read-only once loaded and may be shared between threads.  Nothing here ends the
 * process.
 */
#ifndef KEYSEAL_MILTER_CONF_H
#define KEYSEAL_MILTER_CONF_H

#include "milter/selector_map.h"
#include "net/ip_network.hpp"

#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unordered_map>
#include <vector>

namespace keyseal_milter
{

#define MILTER_CONF_PATH "/etc/keyseal/milter.conf"
/* read when it exists, unless selector_map names another file */
#define MILTER_SELECTOR_MAP_PATH "/etc/keyseal/selectors"
/* inside Postfix's queue directory, so that a chrooted smtpd and cleanup reach it */
#define MILTER_SOCKET_DIR "/var/spool/postfix/keyseal"
#define MILTER_DEFAULT_SOCKET "unix:" MILTER_SOCKET_DIR "/milter.sock"
/* the service unit's RuntimeDirectory; keyseal-admin rotate reloads through it */
#define MILTER_PID_PATH "/run/keyseal-milter/keyseal-milter.pid"
#define MILTER_USER "keyseal" /* the service's account; the handler runs as it */
/* The {daemon_name} that Postfix's cleanup service is given (keyseal-admin postfix setup):
 * the mark of mail submitted on the server itself, which no smtpd sends */
#define MILTER_LOCAL_MARK "keyseal-local-submission"
/* Postfix's default_process_limit: as many messages as its smtpd and cleanup processes
 * can have in flight, with room to spare; an idle worker costs little (shared pages) */
#define MILTER_DEFAULT_WORKERS 100
/* Postfix's smtp_line_length_limit when main.cf does not set it */
#define POSTFIX_DEFAULT_LINE_LIMIT 998

enum class SigningDomain { ENVELOPE, HEADER };
/* what becomes of a message with a line longer than line_length_limit */
enum class LongLines { FOLD, WARN };

struct Config {
    std::string path = MILTER_CONF_PATH;
    std::string socket = MILTER_DEFAULT_SOCKET;   /* inet:PORT is made inet:PORT@127.0.0.1 */
    std::vector<std::string> selector{"default"}; /* one or two: a signature each */
    bool strict = false; /* a failure a retry can cure: temporary failure, not unsigned mail */
    int timeout = 30;    /* seconds for one message's handler run, a wait for a worker included */
    int workers = MILTER_DEFAULT_WORKERS; /* at most this many worker processes */
    std::string selector_map = MILTER_SELECTOR_MAP_PATH;
    SelectorMap selectors; /* the map file's domains and their selectors */
    std::vector<std::string> clients{"127.0.0.0/8", "::1/128"}; /* inet peers allowed */
    std::vector<halyx::net::IPAnyNetwork> client_networks;
    std::string pid_file = MILTER_PID_PATH;     /* "" for none */
    std::vector<std::string> headers, oversign; /* the fields signed; signed once more */
    SigningDomain signing_domain = SigningDomain::ENVELOPE;
    std::string metrics;             /* ADDRESS:PORT of /metrics, "" for none (milter/metrics.h) */
    bool metrics_per_domain = false; /* a series per sender domain: opt-in, as they cost */
    LongLines long_lines = LongLines::FOLD;
    /* Postfix's smtp_line_length_limit as keyseal-admin postfix setup recorded it; 0: none */
    int line_length_limit = POSTFIX_DEFAULT_LINE_LIMIT;

    Config();
    /* selectors_for - the domain's selectors from the map, else the default ones */
    const std::vector<std::string> &selectors_for(const std::string &domain) const;
    /* context - the handler's CONTEXT for the domain: "dkimsel=" and its first selector */
    std::string context(const std::string &domain) const;
    /* socket_file - the file of a unix socket, "" for an inet one (whose socket always
     * names its host: load() gives inet:PORT its loopback address) */
    std::string socket_file() const;
    /* client_allowed - an inet peer's address is inside clients (an IPv4 peer of an IPv6
     * socket, ::ffff:a.b.c.d, as a.b.c.d) */
    bool client_allowed(const std::string &ip) const;
    /* settings - the effective settings as "name value" lines, as --check-config prints */
    std::string settings() const;
};

Config load(const std::string &path);

/* metrics_address - the metrics setting's "ADDRESS:PORT", "[IPv6]:PORT" or PORT alone
 * (loopback) as a socket address; false for anything else */
bool metrics_address(const std::string &text, sockaddr_storage &out);

} // namespace keyseal_milter

#endif
