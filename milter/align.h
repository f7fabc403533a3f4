/*
 * align - the From: header's addresses and DMARC's relaxed alignment: does a signature's
 * d= count for the domain a receiver shows as the sender?
 *
 * from_domains() takes a From: header's value and returns the domain of each address in
 * it (lower case, one trailing dot dropped), "" for an address without a host-name
 * domain.  Display names, quoted strings and comments are passed over, so a '@' or ','
 * inside them is no address.  organizational_domain() is the registrable domain by the
 * Public Suffix List (libpsl, the list Debian's publicsuffix package keeps up to date), or
 * the domain itself where it has none.  aligned() compares two domains' organizational
 * domains.  Nothing here fails, logs or ends the process; thread-safe.
 */
#ifndef KEYSEAL_MILTER_ALIGN_H
#define KEYSEAL_MILTER_ALIGN_H

#include <string>
#include <vector>

namespace keyseal_milter
{

std::vector<std::string> from_domains(const std::string &value);
std::string organizational_domain(const std::string &domain);
bool aligned(const std::string &d, const std::string &from);

} // namespace keyseal_milter

#endif
