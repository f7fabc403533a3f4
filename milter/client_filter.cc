#include "milter/client_filter.h"

#include "milter/milter_log.h"
#include "milter/supervisor.h"
#include "util/halyx_log.h"

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
    else if (addr != nullptr && addr->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &((const sockaddr_in6 *)addr)->sin6_addr, text, sizeof(text));
    return text;
}

} // namespace keyseal_milter

using namespace keyseal_milter;

/* accept - the one libmilter's listener calls: a refused peer never reaches the library */
extern "C" int accept(int fd, sockaddr *addr, socklen_t *len)
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
    return conn;
}
