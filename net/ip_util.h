/*
 * ip_util - the containment test on address texts.  It answers 1 (yes) or 0 (no, or a
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

#ifdef __cplusplus
}
#endif

#endif
