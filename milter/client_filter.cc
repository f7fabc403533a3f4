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
#include <poll.h>
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
 * byte, then length - 1 bytes of data.  libmilter reads each part with its exact size, a
 * poll before each: the socket is read ahead instead, so that one system call takes all the
 * packets the mail server sent together (it sends a message's packets without waiting for
 * answers it said it would not need). */
struct Peer {
    bool tracked = false;
    char *ahead = nullptr; /* AHEAD bytes: read from the socket, not yet asked for */
    uint32_t ahead_at = 0, ahead_end = 0;
    unsigned char head[5] = {};
    unsigned have = 0; /* bytes of the head read */
    uint32_t need = 0; /* bytes of the data still to come */
    char command = 0;
    uint32_t at = 0;   /* data bytes read */
    uint32_t nuls = 0; /* NULs after the data's first byte */
    char last = 0;
};
constexpr int PEERS = 65536; /* descriptors beyond this are passed unexamined */
constexpr size_t AHEAD = 16384;
Peer peers[PEERS];

/* pending - a connection with bytes read ahead: readable, whatever the socket says */
bool pending(int fd)
{
    return fd >= 0 && fd < PEERS && peers[fd].tracked && peers[fd].ahead_at < peers[fd].ahead_end;
}

/* forget - the descriptor is no connection of ours (any more) */
void forget(int fd)
{
    if (fd < 0 || fd >= PEERS) return;
    free(peers[fd].ahead);
    peers[fd] = Peer();
}

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
    if (conn >= PEERS) {
        /* a connection whose packets cannot be followed is not taken (LimitNOFILE keeps
         * descriptors far below this) */
        halyx_log(LOG_WARNING, MILTER_LOG_TOO_MANY, conn);
        syscall(SYS_close, conn);
        errno = EINTR;
        return -1;
    }
    forget(conn);
    peers[conn].tracked = true;
    return conn;
}

ssize_t filter_read(int fd, void *buf, size_t count)
{
    if (fd < 0 || fd >= PEERS || !peers[fd].tracked) return syscall(SYS_read, fd, buf, count);
    Peer &p = peers[fd];
    ssize_t n;
    if (p.ahead_at < p.ahead_end) {
        n = (ssize_t)std::min<size_t>(count, p.ahead_end - p.ahead_at);
        memcpy(buf, p.ahead + p.ahead_at, (size_t)n);
        p.ahead_at += (uint32_t)n;
    } else if (count >= AHEAD ||
               (p.ahead == nullptr && (p.ahead = (char *)malloc(AHEAD)) == nullptr)) {
        n = syscall(SYS_read, fd, buf, count);
    } else {
        ssize_t got = syscall(SYS_read, fd, p.ahead, AHEAD);
        if (got <= 0) return got;
        n = (ssize_t)std::min<size_t>(count, (size_t)got);
        memcpy(buf, p.ahead, (size_t)n);
        p.ahead_at = (uint32_t)n, p.ahead_end = (uint32_t)got;
    }
    if (n <= 0 || well_formed(p, (const char *)buf, (size_t)n)) return n;
    forget(fd);
    halyx_log(LOG_WARNING, MILTER_LOG_MALFORMED);
    errno = ECONNRESET;
    return -1;
}

int filter_poll(pollfd *fds, nfds_t n, int timeout)
{
    nfds_t ready = 0;
    for (nfds_t i = 0; i < n; i++)
        ready += pending(fds[i].fd) && (fds[i].events & POLLIN);
    /* bytes read ahead are there now: the others are only looked at, not waited for */
    int found = (int)syscall(SYS_poll, fds, n, ready > 0 ? 0 : timeout);
    if (ready == 0 || found < 0) return found;
    found = 0;
    for (nfds_t i = 0; i < n; i++) {
        if (pending(fds[i].fd) && (fds[i].events & POLLIN)) fds[i].revents |= POLLIN;
        found += fds[i].revents != 0;
    }
    return found;
}

int filter_close(int fd)
{
    forget(fd);
    return (int)syscall(SYS_close, fd);
}

} // namespace keyseal_milter
