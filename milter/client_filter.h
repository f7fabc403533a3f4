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
 *   read()     filter_read(): a connection's packets are followed; one whose macro packet
 *              holds unpaired names and values (which makes the library's macro lookup read
 *              past its list) is ended, logged, as if its peer had reset it (ECONNRESET)
 *   close()    filter_close(): a connection's descriptor is forgotten
 * Descriptors that are not a connection pass through read() and close() untouched.  Each
 * returns as the system call it stands for.
 * client_filter_bind() names the settings to judge by (they must outlive the listener);
 * client_filter_close() refuses every new connection from then on.  Unix-socket peers are
 * judged by the socket file's permissions alone.  Thread-safe; nothing here ends the
 * process.
 */
#ifndef KEYSEAL_MILTER_CLIENT_FILTER_H
#define KEYSEAL_MILTER_CLIENT_FILTER_H

#include <string>
#include <sys/socket.h>
#include <sys/types.h>

namespace keyseal_milter
{

class Settings;

void client_filter_bind(const Settings *settings);
void client_filter_close();

int filter_accept(int fd, sockaddr *addr, socklen_t *len);
ssize_t filter_read(int fd, void *buf, size_t count);
int filter_close(int fd);

/* address_text - a socket address as text, "" for a family without one */
std::string address_text(const sockaddr *addr);

} // namespace keyseal_milter

#endif
