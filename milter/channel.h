/*
 * channel - descriptors and whole files between keyseal-milter's processes, and how one
 * of them ended.
 *
 * send_fds() sends one datagram (at least one byte) with n descriptors attached (flags as
 * sendmsg's, MSG_DONTWAIT say: EAGAIN while the receiver's queue is full);
 * receive_fds() takes one, up to cap bytes into buf, with at least min and at most max
 * descriptors (*n: how many came), made close-on-exec.  read_file() reads a file whole
 * from offset 0; pwrite_all() writes all of data at an offset.  0 (or the bytes received)
 * on success, -1 with errno; receive_fds() fails with ECONNRESET at the peer's end and
 * EBADMSG for a datagram cut short or with a count of descriptors out of bounds (any it
 * carried are closed).  ended_how() puts a wait status in words for the log ("killed by
 * SIGKILL", "exit status 1"): the one wording of every process's end.  Nothing here logs
 * or ends the process.
 */
#ifndef KEYSEAL_MILTER_CHANNEL_H
#define KEYSEAL_MILTER_CHANNEL_H

#include <string>
#include <sys/types.h>

namespace keyseal_milter
{

int send_fds(int sock, const void *data, size_t length, const int *fds, int n, int flags = 0);
ssize_t receive_fds(int sock, void *buf, size_t cap, int *fds, int min, int max, int *n);
int read_file(int fd, std::string &out);
int pwrite_all(int fd, const void *data, size_t length, off_t at);
std::string ended_how(int status);

} // namespace keyseal_milter

#endif
