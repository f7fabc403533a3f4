/*
 * milter_conf - keyseal-milter's settings: /etc/keyseal/milter.conf, read with the
 * project's configuration reader ("name value" lines, '#' comments), and the optional
 * per-domain selector map it names ("DOMAIN SELECTOR" lines).
 *
 * load() fills a Config from the file, defaults where a setting is absent; it throws
 * ConfigError ("FILE:LINE: why") for a malformed line, an unknown name or a bad value,
 * so that nothing starts on a half-read configuration.  context() is the handler's
 * CONTEXT for a sender domain.  Nothing here ends the process.
 */
#ifndef KEYSEAL_MILTER_CONF_H
#define KEYSEAL_MILTER_CONF_H

#include <map>
#include <stdexcept>
#include <string>

namespace keyseal_milter
{

#define MILTER_CONF_PATH "/etc/keyseal/milter.conf"
/* inside Postfix's queue directory, so that a chrooted smtpd and cleanup reach it */
#define MILTER_SOCKET_DIR "/var/spool/postfix/keyseal"
#define MILTER_DEFAULT_SOCKET "unix:" MILTER_SOCKET_DIR "/milter.sock"
#define MILTER_USER "keyseal" /* the service's account; the handler runs as it */
/* The {daemon_name} that Postfix's cleanup service is given (keyseal-admin postfix setup):
 * the mark of mail submitted on the server itself, which no smtpd sends */
#define MILTER_LOCAL_MARK "keyseal-local-submission"

struct ConfigError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Config {
    std::string path = MILTER_CONF_PATH;
    std::string socket = MILTER_DEFAULT_SOCKET;
    std::string selector = "default";
    bool strict = false;      /* a signing failure: temporary failure instead of unsigned mail */
    int timeout = 30;         /* seconds for one message's handler run */
    std::string selector_map; /* the map file, or "" */
    std::map<std::string, std::string> selectors; /* domain -> selector, from the map */

    /* context - "dkimsel=" with the domain's selector from the map, else the default */
    std::string context(const std::string &domain) const;
    /* settings - the effective settings as "name value" lines, as --check-config prints */
    std::string settings() const;
};

Config load(const std::string &path);

} // namespace keyseal_milter

#endif
