#include "milter/client_filter.h"

#include "milter/milter_log.h"
#include "milter/supervisor.h"
#include "util/halyx_log.h"

#include <libmilter/mfapi.h>
#include <libmilter/mfdef.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace keyseal_milter
{

namespace
{
std::atomic<const Settings *> bound{nullptr};
std::atomic<bool> closed{false};

/* Peer - what has been read so far of one connection's packets: a length and a command
 * byte, then length - 1 bytes of data.  libmilter reads each part with its exact size. */
struct Peer {
    bool tracked = false;
    unsigned char head[5] = {};
    unsigned have = 0; /* bytes of the head read */
    uint32_t need = 0; /* bytes of the data still to come */
    char command = 0;
    uint32_t at = 0;   /* data bytes read */
    uint32_t nuls = 0; /* NULs after the data's first byte */
    char last = 0;
};
constexpr int PEERS = 65536; /* descriptors beyond this are passed unexamined */
Peer peers[PEERS];

/* well_formed - one more piece of a peer's stream read: false once a macro packet ended
 * that libmilter would take apart unsafely.  Its data is the stage's letter, then names and
 * values, each ended by a NUL: an odd number of them, or a last one without its NUL, makes
 * the library's macro lookup read past the end of its list. */
bool well_formed(Peer &p, const char *data, size_t n)
{
    for (size_t i = 0; i < n;) {
        if (p.need == 0) {
            p.head[p.have++] = (unsigned char)data[i++];
            if (p.have < sizeof(p.head)) continue;
            uint32_t length = (uint32_t)p.head[0] << 24 | (uint32_t)p.head[1] << 16 |
                              (uint32_t)p.head[2] << 8 | p.head[3];
            p.have = 0;
            p.command = (char)p.head[4];
            p.need = length > 0 ? length - 1 : 0;
            p.at = p.nuls = 0;
            p.last = 0;
            continue;
        }
        size_t take = std::min<size_t>(p.need, n - i);
        if (p.command == SMFIC_MACRO)
            for (size_t k = i; k < i + take; k++, p.at++) {
                if (p.at > 0 && data[k] == '\0') p.nuls++;
                p.last = data[k];
            }
        p.need -= (uint32_t)take;
        i += take;
        if (p.need == 0 && p.command == SMFIC_MACRO && p.at > 1 &&
            (p.last != '\0' || p.nuls % 2 != 0))
            return false;
    }
    return true;
}
} // namespace

void client_filter_bind(const Settings *settings)
{
    bound = settings;
}

void client_filter_close()
{
    closed = true;
}

std::string address_text(const sockaddr *addr)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (addr != nullptr && addr->sa_family == AF_INET)
        inet_ntop(AF_INET, &((const sockaddr_in *)addr)->sin_addr, text, sizeof(text));
    else if (addr != nullptr && addr->sa_family == AF_INET6) {
        const in6_addr &a = ((const sockaddr_in6 *)addr)->sin6_addr;
        /* an IPv4 peer of an IPv6 socket is named as the IPv4 address it is */
        if (IN6_IS_ADDR_V4MAPPED(&a))
            inet_ntop(AF_INET, &a.s6_addr[12], text, sizeof(text));
        else
            inet_ntop(AF_INET6, &a, text, sizeof(text));
    }
    return text;
}

int filter_accept(int fd, sockaddr *addr, socklen_t *len)
{
    sockaddr_storage peer;
    socklen_t peer_len = sizeof(peer);
    int conn = (int)syscall(SYS_accept4, fd, (sockaddr *)&peer, &peer_len, 0);
    if (conn < 0) return -1;
    if (closed) {
        close(conn);
        errno = EINTR;
        return -1;
    }
    const Settings *settings = bound;
    if (settings != nullptr && (peer.ss_family == AF_INET || peer.ss_family == AF_INET6)) {
        std::string ip = address_text((const sockaddr *)&peer);
        auto c = settings->get();
        if (c && !c->client_allowed(ip)) {
            halyx_log(LOG_WARNING, MILTER_LOG_REFUSED, ip.c_str());
            close(conn);
            errno = EINTR; /* the library's listener goes on to the next connection */
            return -1;
        }
    }
    if (addr != nullptr && len != nullptr) {
        memcpy(addr, &peer, std::min<socklen_t>(*len, peer_len));
        *len = peer_len;
    }
    if (conn < PEERS) {
        peers[conn] = Peer();
        peers[conn].tracked = true;
    }
    return conn;
}

ssize_t filter_read(int fd, void *buf, size_t count)
{
    ssize_t n = syscall(SYS_read, fd, buf, count);
    if (n <= 0 || fd < 0 || fd >= PEERS || !peers[fd].tracked) return n;
    if (well_formed(peers[fd], (const char *)buf, (size_t)n)) return n;
    peers[fd].tracked = false;
    halyx_log(LOG_WARNING, MILTER_LOG_MALFORMED);
    errno = ECONNRESET;
    return -1;
}

int filter_close(int fd)
{
    if (fd >= 0 && fd < PEERS) peers[fd].tracked = false;
    return (int)syscall(SYS_close, fd);
}

} // namespace keyseal_milter
