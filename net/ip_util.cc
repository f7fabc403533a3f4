#include "net/ip_util.h"

#include <arpa/inet.h>
#include <cstring>

extern "C" int inSubnet(const char *ip, const char *net, uint16_t prefix)
{
    struct in_addr a4, b4;
    if (inet_pton(AF_INET, ip, &a4) == 1 && inet_pton(AF_INET, net, &b4) == 1) {
        unsigned n = prefix <= 32 ? prefix : 32;
        unsigned s = (32 - n) % 32; /* prefix 0 compares all 32 bits */
        if ((ntohl(a4.s_addr) >> s) == (ntohl(b4.s_addr) >> s)) return 1;
    }
    unsigned char a6[16], b6[16];
    if (inet_pton(AF_INET6, ip, a6) != 1 || inet_pton(AF_INET6, net, b6) != 1) return 0;
    unsigned n = prefix <= 128 ? prefix : 128;
    if (memcmp(a6, b6, n / 8) != 0) return 0;
    unsigned b = n % 8;
    if (b == 0) return 1;
    return (a6[n / 8] >> (8 - b)) == (b6[n / 8] >> (8 - b));
}

/* prefix_match - the first n bits of a and b agree */
static int prefix_match(const unsigned char *a, const unsigned char *b, unsigned n)
{
    if (memcmp(a, b, n / 8) != 0) return 0;
    unsigned bits = n % 8;
    return bits == 0 || (a[n / 8] >> (8 - bits)) == (b[n / 8] >> (8 - bits));
}

extern "C" int ip_in_prefix(const char *ip, const char *net, uint16_t prefix)
{
    static const unsigned char MAPPED[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    unsigned char a[16], b[16];
    int family = AF_INET;
    if (inet_pton(AF_INET, ip, a) != 1) {
        if (inet_pton(AF_INET6, ip, a) != 1) return 0;
        if (memcmp(a, MAPPED, sizeof(MAPPED)) == 0)
            memmove(a, a + sizeof(MAPPED), 4);
        else
            family = AF_INET6;
    }
    if (inet_pton(family, net, b) != 1) return 0;
    return prefix <= (family == AF_INET ? 32 : 128) && prefix_match(a, b, prefix);
}
