/*
 * client_filter - who may talk to keyseal-milter: whoever reaches its socket can have any
 * message signed, so the peers of an inet socket outside the clients setting are refused,
 * and once a stop has begun nobody new is taken.
 *
 * keyseal-milter defines accept(), the call libmilter's listener makes, so that a
 * connection is judged before the library sees it: a refused one is closed at once and
 * logged ("refused a connection from IP: not among clients"), and the listener goes on to
 * the next (it sees EINTR).  client_filter_bind() names the settings to judge by (they
 * must outlive the listener); client_filter_close() refuses every new connection from
 * then on.  Unix-socket peers are judged by the socket file's permissions alone.
 * Thread-safe; nothing here ends the process.
 */
#ifndef KEYSEAL_MILTER_CLIENT_FILTER_H
#define KEYSEAL_MILTER_CLIENT_FILTER_H

#include <string>
#include <sys/socket.h>

namespace keyseal_milter
{

class Settings;

void client_filter_bind(const Settings *settings);
void client_filter_close();

/* address_text - a socket address as text, "" for a family without one */
std::string address_text(const sockaddr *addr);

} // namespace keyseal_milter

#endif
