/*
 * prom_file - the state of the signing keys for a monitoring system: a file in the
 * Prometheus text format (0.0.4) for the node exporter's textfile collector, which reads
 * PROM_TEXTFILE_DIR's *.prom files.  Each key under the keys directory gets its age and
 * whether the DNS record at its selector holds its public key; each rotation under way,
 * how long it has waited at its step.  keyseal-admin check --all --prometheus FILE writes
 * it; so may any periodic job (a rotation timer) through write_key_metrics().
 *
 * key_metrics_text() is pure: no I/O, nothing thrown.  key_states() and rotation_states()
 * read the keys directory and ask DNS (a lookup that gets no answer leaves the record's
 * match unknown rather than false); write_key_metrics() replaces FILE atomically (a
 * temporary file beside it, renamed over it, so the collector never reads half a file; the
 * temporary name does not end in .prom).  They throw Problem (keys directory unreadable,
 * a rotation state file broken, FILE not writable); nothing here ends the process or
 * prints.  Results are the caller's.
 */
#ifndef KEYSEAL_ADMIN_PROM_FILE_H
#define KEYSEAL_ADMIN_PROM_FILE_H

#include "admin/dns.h"

#include <ctime>
#include <string>
#include <vector>

namespace keyseal_admin
{

#define PROM_TEXTFILE_DIR "/var/lib/prometheus/node-exporter"

struct KeyState {
    std::string domain, selector;
    time_t made = -1; /* the key file's modification time; -1: unreadable */
    int matches = -1; /* the record holds the key's public key: 1, 0; -1 no DNS answer */
};

struct RotationState {
    std::string domain;
    const char *step = "staged"; /* "staged" (new key out, not signing) or "switched" */
    time_t since = 0;            /* when that step was taken */
};

/* key_metrics_text - the file's text for these keys and rotations, as of now */
std::string key_metrics_text(const std::vector<KeyState> &keys,
                             const std::vector<RotationState> &rotations, time_t now);
/* key_states - every DOMAIN/SELECTOR key, its age and its record (ns: as --nameserver) */
std::vector<KeyState> key_states(const Nameservers &ns);
/* rotation_states - every domain's rotation that is not yet retired */
std::vector<RotationState> rotation_states();
/* write_key_metrics - key_states() and rotation_states() written to path */
void write_key_metrics(const std::string &path, const Nameservers &ns);

} // namespace keyseal_admin

#endif
