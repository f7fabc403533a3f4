#include "milter/channel.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_milter
{

enum { MAX_FDS = 4 }; /* more than any request carries: an excess is seen, and refused */

int send_fds(int sock, const void *data, size_t length, const int *fds, int n, int flags)
{
    char control[CMSG_SPACE(MAX_FDS * sizeof(int))] = {};
    iovec iov{const_cast<void *>(data), length};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE((size_t)n * sizeof(int));
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN((size_t)n * sizeof(int));
    memcpy(CMSG_DATA(c), fds, (size_t)n * sizeof(int));
    ssize_t sent;
    do
        sent = sendmsg(sock, &msg, MSG_NOSIGNAL | flags);
    while (sent < 0 && errno == EINTR);
    if (sent < 0) return -1;
    if ((size_t)sent != length) return errno = EMSGSIZE, -1;
    return 0;
}

ssize_t receive_fds(int sock, void *buf, size_t cap, int *fds, int min, int max, int *n)
{
    char control[CMSG_SPACE(MAX_FDS * sizeof(int))] = {};
    iovec iov{buf, cap};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t got;
    do
        got = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    if (got < 0) return -1;
    if (got == 0) return errno = ECONNRESET, -1;
    int count = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        int k = (int)((c->cmsg_len - CMSG_LEN(0)) / sizeof(int));
        for (int i = 0; i < k; i++) {
            int fd;
            memcpy(&fd, CMSG_DATA(c) + (size_t)i * sizeof(int), sizeof(int));
            if (count < max)
                fds[count] = fd;
            else
                close(fd);
            count++;
        }
    }
    if (count < min || count > max || (msg.msg_flags & (MSG_CTRUNC | MSG_TRUNC))) {
        for (int i = 0; i < count && i < max; i++)
            close(fds[i]);
        return errno = EBADMSG, -1;
    }
    *n = count;
    return got;
}

int read_file(int fd, std::string &out)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    out.resize((size_t)st.st_size);
    size_t at = 0;
    while (at < out.size()) {
        ssize_t n = pread(fd, out.data() + at, out.size() - at, (off_t)at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        at += (size_t)n;
    }
    out.resize(at);
    return 0;
}

int pwrite_all(int fd, const void *data, size_t length, off_t at)
{
    const char *p = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t n = pwrite(fd, p, length, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return errno = n < 0 ? errno : ENOSPC, -1;
        p += n, length -= (size_t)n, at += n;
    }
    return 0;
}

std::string ended_how(int status)
{
    if (WIFSIGNALED(status)) return std::string("killed by SIG") + sigabbrev_np(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace keyseal_milter
