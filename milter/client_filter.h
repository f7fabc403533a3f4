/*
 * client_filter - who may talk to keyseal-milter, and what libmilter may be handed: whoever
 * reaches the socket can have any message signed, so the peers of an inet socket outside
 * the clients setting are refused, once a stop has begun nobody new is taken, and a
 * connection that sends what the library cannot take apart safely is ended.
 *
 keyseal-milter's program defines calls that libmilter makes, each the filter's, so that a
 * connection is judged before the library sees it:
 *   accept()   filter_accept(): a refused peer is closed at once and logged ("refused a
 *              connection from IP: not among clients"); the listener sees EINTR and goes on
 *   read()     filter_read(): a connection is read ahead (one system call takes what the
 *              mail server sent together, where the library asks for each packet's head
 *              and data apart) and its packets are followed; one whose macro packet holds
 *              unpaired names and values (which makes the library's macro lookup read past
 *              its list) is ended, logged, as if its peer had reset it (ECONNRESET)
 *   poll()     filter_poll(): a connection with bytes read ahead is readable
 *   close()    filter_close(): a connection's descriptor and what was read ahead are
 *              forgotten
 * Descriptors that are not a connection pass through untouched.  A connection is served by
 * one of libmilter's threads at a time, and the library hands it between threads under its
 * own locks: its state needs none of its own.  Each
 * returns as the system call it stands for.
 * client_filter_bind() names the settings to judge by (they must outlive the listener);
 * client_filter_close() refuses every new connection from then on.  Unix-socket peers are
 * judged by the socket file's permissions alone.  Thread-safe; nothing here ends the
 * process.
 */
#ifndef KEYSEAL_MILTER_CLIENT_FILTER_H
#define KEYSEAL_MILTER_CLIENT_FILTER_H

#include <string>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace keyseal_milter
{

class Settings;

void client_filter_bind(const Settings *settings);
void client_filter_close();

int filter_accept(int fd, sockaddr *addr, socklen_t *len);
ssize_t filter_read(int fd, void *buf, size_t count);
int filter_poll(pollfd *fds, nfds_t n, int timeout);
int filter_close(int fd);

/* address_text - a socket address as text, "" for a family without one */
std::string address_text(const sockaddr *addr);

} // namespace keyseal_milter

#endif
