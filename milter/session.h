/*
 * session - one mail server connection as libmilter serves it: the callbacks from the
 * negotiation to the close, the message kept in a file for the handler, the session's
 * facts turned into the handler's job, and the verdict (milter/verdict.h) carried out.
 *
 * The message is kept as the handler reads it (CR LF line ends, each header as the server
 * holds it), in a memory file while it is small and in a nameless disk file past
 * IN_MEMORY_MAX, so that a large message costs no more memory than that.
 *
 * session_register() fills libmilter's description with the callbacks and binds them to
 * the settings and the helper, which must outlive libmilter's threads.  Callbacks run on
 * libmilter's connection threads, each session on one at a time.  in_flight() counts the
 * messages between MAIL FROM and their end, for the supervisor's drain.  Nothing here
 * ends the process: every fault becomes the message's verdict, and a connection without
 * a session (no memory) is answered with a temporary failure.
 */
#ifndef KEYSEAL_MILTER_SESSION_H
#define KEYSEAL_MILTER_SESSION_H

#include <libmilter/mfapi.h>

namespace keyseal_milter
{

class Helper;
class Settings;

void session_register(smfiDesc &desc, const Settings &settings, Helper &helper);
int in_flight();

} // namespace keyseal_milter

#endif
