/*
 * dns - the DNS questions keyseal-admin asks: the TXT records at a name and the authoritative
 * servers of the zone around a domain (through ldns, beside the updates of dns_update.h), and
 * the DKIM library's own key lookups (through the stub resolver), each asking the nameservers
 * given (--nameserver) or the system's.
 *
 * Lookups throw Problem when the resolver cannot start or a question gets no answer;
 * parse_nameservers throws Usage.  Results are values; DkimLibrary owns its library
 * instance and resolver.
 */
#ifndef KEYSEAL_ADMIN_DNS_H
#define KEYSEAL_ADMIN_DNS_H

#include "admin/admin.h"

#include <map>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

struct dkim_lib; /* libopendkim's DKIM_LIB */

namespace keyseal_admin
{

/* The nameservers of --nameserver (IPv4), empty for the system resolver */
using Nameservers = std::vector<std::string>;
/* parse_nameservers - --nameserver's comma-separated IPv4 addresses; throws Usage */
Nameservers parse_nameservers(const std::string &list);

struct Resolver;
/* DkimLibrary - a libopendkim instance with these library flags whose every DNS question
 * goes through this program's resolver: to ns, or to /etc/resolv.conf's servers when
 * ns is empty.  Throws Problem when the library or the resolver cannot start. */
class DkimLibrary
{
  public:
    DkimLibrary(const Nameservers &ns, unsigned int flags);
    ~DkimLibrary();
    DkimLibrary(const DkimLibrary &) = delete;
    DkimLibrary &operator=(const DkimLibrary &) = delete;
    ::dkim_lib *get() const { return lib_; }

  private:
    std::unique_ptr<Resolver> resolver_;
    ::dkim_lib *lib_;
};
/* record_tags - a DKIM key record's tag=value list; the values trimmed of blanks */
std::map<std::string, std::string> record_tags(const std::string &record);
/* record_matches - p= (a record's public key) is key's public key */
bool record_matches(const std::string &p, EVP_PKEY *key);
/* lookup_txt - the TXT strings of each record at name, joined per record; throws Problem */
std::vector<std::string> lookup_txt(const std::string &name, const Nameservers &ns);
/* NameServer - an authoritative server of a zone: its host name and an IPv4 address ("" when
 * it has none) */
struct NameServer {
    std::string host, ip;
};
/* authoritative_servers - the zone enclosing domain (found by its SOA record, through the
 * system's resolver) into zone, and each of its NS hosts with each of its addresses */
std::vector<NameServer> authoritative_servers(const std::string &domain, std::string &zone);

} // namespace keyseal_admin

#endif
