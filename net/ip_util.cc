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

extern "C" int areAddressesSame(const char *a, const char *b)
{
    struct in_addr a4, b4;
    if (inet_pton(AF_INET, a, &a4) == 1 && inet_pton(AF_INET, b, &b4) == 1)
        return a4.s_addr == b4.s_addr;
    unsigned char a6[16], b6[16];
    if (inet_pton(AF_INET6, a, a6) == 1 && inet_pton(AF_INET6, b, b6) == 1)
        return memcmp(a6, b6, sizeof(a6)) == 0;
    return 0;
}

extern "C" int isLoopbackIP(const char *ip)
{
    if (strncmp(ip, "127.", 4) == 0) return 1;
    unsigned char a[16];
    if (inet_pton(AF_INET6, ip, a) != 1) return 0;
    static const unsigned char zero[10] = {};
    if (memcmp(a, &in6addr_loopback, sizeof(a)) == 0) return 1;
    return memcmp(a, zero, sizeof(zero)) == 0 && a[10] == 0xFF && a[11] == 0xFF && a[12] == 127;
}
