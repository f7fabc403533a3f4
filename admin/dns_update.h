/*
 * dns_update - keyseal-admin changes its own DNS records: the settings of
 * /etc/keyseal/dns.conf (which zones it may update, with which TSIG key, at which primary),
 * one DNS UPDATE (RFC 2136, signed with TSIG hmac-sha256) per zone that publishes and withdraws
 * a list of TXT records, and the serving gate: whether every authoritative server of a zone
 * serves a record (a key, or its absence), asked of each server directly.  Messages, TSIG and
 * queries are ldns's.
 *
 * Settings, one a line, '#' comments:
 *   zone ZONE key FILE [primary ADDRESS[:PORT]]   keyseal may update ZONE with the key in FILE
 *   delegation_zone ZONE                          the hoster's zone of delegated selectors
 *   rotate_after DAYS                             a key older than this is rotated (180)
 *   switch_alarm DAYS                             a switch waiting longer needs a person (2)
 * The key FILE is a TSIG key as tsig-keygen writes it:
 *   key "NAME" { algorithm hmac-sha256; secret "BASE64"; };
 *
 * Return convention: loaders throw Problem with one line ("FILE:LINE: what"); an update's
 * refusal is not thrown but returned as an UpdateResult with a typed Refusal and one line of
 * text, so a caller grouping many domains can go on with the others.  Results are plain
 * values owned by the caller; a DnsZone pointer points into the DnsConf it came from.
 * Diagnostics: nothing here ends the process or prints, except wait_served's per-server
 * lines through the Findings it is given.
 */
#ifndef KEYSEAL_DNS_UPDATE_H
#define KEYSEAL_DNS_UPDATE_H

#include "admin/admin.h"
#include "admin/dns.h"

#include <openssl/evp.h>
#include <map>
#include <string>
#include <vector>

namespace keyseal_admin
{

/* DNS_CONF_PATH - where the settings are read from; KEYSEAL_DNS_CONF in the environment
 * names another file (the tests' lab) */
extern const char DNS_CONF_PATH[];
std::string dns_conf_path();

/* DnsZone - one "zone" line: a zone keyseal may update */
struct DnsZone {
    std::string zone;     /* canonical: lower case, no trailing dot */
    std::string key_file; /* the TSIG key's file */
    std::string primary;  /* "ADDRESS" or "ADDRESS:PORT" ("[V6]:PORT"); "" for the SOA's MNAME */
    int line = 0;         /* where it was said, for messages */
};

/* DnsConf - the whole of dns.conf; a missing file is empty settings (nothing is updated) */
struct DnsConf {
    std::string path;
    bool exists = false;
    std::vector<DnsZone> zones;
    std::vector<std::string> delegation_zones; /* in the order written; canonical */
    int rotate_after_days = 180;
    int switch_alarm_days = 2;

    /* zone_for - the zone setting that can update name (the longest zone enclosing it, or
     * the name itself); nullptr when keyseal cannot update it */
    const DnsZone *zone_for(const std::string &name) const;
    /* delegation_zone - the first delegation_zone, "" when none is set */
    std::string delegation_zone() const;
};

/* load_dns_conf - the settings at path (default dns_conf_path()); throws Problem
 * "PATH:LINE: what" for the first line not understood, or a file that cannot be read */
DnsConf load_dns_conf(const std::string &path = "");

/* TsigKey - a TSIG key as tsig-keygen writes it */
struct TsigKey {
    std::string name;      /* canonical key name */
    std::string algorithm; /* "hmac-sha256" (others tsig-keygen writes are refused) */
    std::string secret;    /* base64 */
};
/* read_tsig_key - the key in path; throws Problem for a file missing, unreadable, not in
 * that format, or readable by group or others (a secret anyone on the host could sign with) */
TsigKey read_tsig_key(const std::string &path);
/* check_dns_conf - the findings of `check` on the settings: parse errors with file:line, key
 * files missing, unreadable or too open, zones whose primary cannot be found */
void check_dns_conf(Findings &report, const std::string &path = "");

/* TxtRecord - a TXT record to publish: its owner name and its strings (each <= 255 octets) */
struct TxtRecord {
    std::string name; /* canonical, no trailing dot */
    std::vector<std::string> strings;
    /* the key it carries, for the comparison of what is published with what is wanted; null:
     * compared string for string */
    EVP_PKEY *key = nullptr;
};
/* dkim_record - the DKIM key record of key at SELECTOR._domainkey.DOMAIN, split into the
 * strings dns_record() prints */
TxtRecord dkim_record(const std::string &domain, const std::string &selector, EVP_PKEY *key);
/* dkim_record_strings - the record's strings, as dns_record() prints them: one
 * "v=DKIM1; k=TYPE; " and p= in pieces of 255 octets (the one splitting of both) */
std::vector<std::string> dkim_record_strings(EVP_PKEY *key);

/* Refusal - why an update (or one name of it) was not made */
enum class Refusal {
    NONE,       /* made, or nothing to make */
    BAD_KEY,    /* the server does not know or accept the TSIG key (BADKEY, BADSIG, BADTIME,
                   NOTAUTH with a TSIG error, or a reply whose signature is wrong) */
    REFUSED,    /* the key has no right to update this zone or name (REFUSED) */
    NOT_ZONE,   /* the server is not the primary of the zone (NOTAUTH, NOTZONE) */
    OTHER_KEY,  /* the name holds another key, and force was not given */
    CHANGED,    /* the name changed between the look and the update (a prerequisite failed) */
    NO_PRIMARY, /* the zone's primary cannot be found (no setting, no SOA) */
    NO_ANSWER,  /* the primary did not answer (time-out, connection refused) */
    FAILED,     /* any other failure (SERVFAIL, a key file, ...) */
};
/* refusal_name - "BAD_KEY" ... as a word for logs and state files */
const char *refusal_name(Refusal r);

/* NameResult - what happened to one name of an update */
enum class Change { PUBLISHED, REPLACED, WITHDRAWN, UNCHANGED, NOT_DONE };
struct NameResult {
    std::string name;
    Change change = Change::NOT_DONE;
    Refusal refusal = Refusal::NONE; /* NOT_DONE: why */
    std::string text;                /* one line: what happened, or why not */
};

/* UpdateResult - one zone's UPDATE: the zone, the primary asked, per name what happened */
struct UpdateResult {
    std::string zone, primary;
    Refusal refusal = Refusal::NONE; /* the whole message's refusal, if it was refused */
    std::string rcode;               /* the reply's RCODE or TSIG error ("NOERROR", "BADSIG") */
    std::string text;                /* one line for a refusal of the whole message */
    std::vector<NameResult> names;   /* publish's names, then withdraw's, in their order */
    int messages = 0;                /* UPDATE messages sent (0 when nothing was to change) */
    bool ok() const { return refusal == Refusal::NONE; }
};

/* update_zone - publish the records and withdraw every TXT record at the names, all of them in
 * zone (else NOT_ZONE for that name), in ONE UPDATE to the zone's primary.  What is published
 * is compared first (asked of the primary): a name already holding exactly the record is
 * UNCHANGED; one holding another key is NOT_DONE with OTHER_KEY unless force; a name to
 * withdraw with no TXT record is UNCHANGED.  The UPDATE's prerequisites are what was seen, so a
 * change in between is CHANGED and changes nothing.  A refused message changes nothing. */
UpdateResult update_zone(const DnsZone &zone, const std::vector<TxtRecord> &publish,
                         const std::vector<std::string> &withdraw, bool force);

/* update_all - publish and withdraw over many zones: the names grouped by conf.zone_for into
 * one update_zone per zone (several, of some 48 KiB each, where one DNS message of 64 KiB
 * cannot hold a zone's all); a name no zone setting encloses is NOT_DONE with NO_PRIMARY in a
 * result of zone "" */
std::vector<UpdateResult> update_all(const DnsConf &conf, const std::vector<TxtRecord> &publish,
                                     const std::vector<std::string> &withdraw, bool force);

/* canonical_dns_name - a name as results are keyed: lower case, no trailing dot */
std::string canonical_dns_name(const std::string &name);
/* results_by_name - each name's result of these updates, by its canonical name; a name of a
 * refused message carries the message's one line when it has none of its own */
std::map<std::string, NameResult> results_by_name(const std::vector<UpdateResult> &updates);

/* ServerAnswer - what one authoritative server answers at a name */
struct ServerAnswer {
    std::string host, ip; /* ip "" when the host has no IPv4 address */
    std::string why;      /* "" when it serves what is wanted, else what it answers instead */
    bool ok() const { return why.empty(); }
};

/* zone_servers - the authoritative servers of the zone enclosing name (found by its SOA,
 * through the system's resolver) into zone, each host with each of its IPv4 addresses, or
 * the given addresses; throws Problem when there are none */
std::vector<ServerAnswer> zone_servers(const std::string &name, const Nameservers &given,
                                       std::string &zone);

/* serves - each server's answer at name: key the one TXT record there (key null: no TXT
 * record there, as after a withdrawal) */
std::vector<ServerAnswer> serves(const std::string &name, EVP_PKEY *key,
                                 std::vector<ServerAnswer> servers);

/* wait_served - ask until every server serves what is wanted at name, or wait_seconds
 * passed (0: ask once); an ok/error line per server on report at the end; the servers as
 * last asked, every one ok() when the gate passed */
std::vector<ServerAnswer> wait_served(const std::string &name, EVP_PKEY *key,
                                      const std::vector<ServerAnswer> &servers, int wait_seconds,
                                      Findings &report);

/* lagging - the servers that do not serve what is wanted, for one line: "IP (HOST) WHY, ..." */
std::string lagging(const std::vector<ServerAnswer> &servers);

/* cmd_dns_publish - the key of DOMAIN/SELECTOR published by UPDATE and waited for */
int cmd_dns_publish(std::string domain, const std::string &selector, bool force, int wait_seconds);
/* cmd_dns_withdraw - the TXT record at SELECTOR._domainkey.DOMAIN withdrawn, and waited for */
int cmd_dns_withdraw(std::string domain, const std::string &selector, int wait_seconds);

} // namespace keyseal_admin

#endif
