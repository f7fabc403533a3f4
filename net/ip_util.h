/*
 * ip_util - the containment tests on address texts.  It answers 1 (yes) or 0 (no, or a
 * text that does not parse); texts are parsed with inet_pton on every call.
 */
#ifndef IP_UTIL_H
#define IP_UTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* inSubnet - ip in net/prefix; IPv4 prefix 0 means the one address, IPv6 prefix 0 means all */
int inSubnet(const char *ip, const char *net, uint16_t prefix);
/* ip_in_prefix - ip's first prefix bits are net's, prefix 0 meaning every address of the
 * family (the whitelist's inSubnet reads an IPv4 prefix 0 otherwise).  An IPv4 client on
 * an IPv6 socket, ::ffff:a.b.c.d, is the IPv4 address a.b.c.d: only IPv4 nets hold it.  A
 * prefix beyond the family's width holds nothing. */
int ip_in_prefix(const char *ip, const char *net, uint16_t prefix);

#ifdef __cplusplus
}
#endif

#endif
