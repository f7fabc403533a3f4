/*
 * maillog - the mail log read back, for report and explain --queue-id: the lines of plain or
 * gzipped files, or of the journal, and each line's syslog parts.
 *
 * parse_syslog() splits a line with a traditional ("Mmm dd hh:mm:ss") or RFC 3339 stamp into
 * time, host, program, pid and message.  read_mail_log() feeds every line of the files (a
 * file it cannot read is named in a warning on standard error and left out) or, with no
 * files, of journalctl with the given filter; it throws Problem when nothing could be read.
 * match() reads the values back out of a log text written with a printf format.
 */
#ifndef KEYSEAL_ADMIN_MAILLOG_H
#define KEYSEAL_ADMIN_MAILLOG_H

#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace keyseal_admin
{

/* where Debian's syslog daemon writes the mail facility */
#define MAILLOG_DEFAULT "/var/log/mail.log"

struct SyslogLine {
    time_t when = 0;
    std::string host, ident; /* ident: "keyseal", "postfix/smtpd", ... */
    pid_t pid = 0;           /* 0 when the line carries none */
    std::string message;     /* without the line end */
};
/* parse_syslog - false when line is no syslog line; now gives traditional stamps' year */
bool parse_syslog(std::string_view line, time_t now, SyslogLine &out);

/* read_mail_log - command names the caller in warnings and errors ("report");
 * journal: journalctl's match arguments, e.g. {"-t", "keyseal"} */
void read_mail_log(const std::string &command, const std::vector<std::string> &files,
                   const std::vector<std::string> &journal,
                   const std::function<void(std::string_view)> &feed);

/* match - text is fmt with each %s and %d filled in; the fillings go to values.  A filling
 * ends at the first place the format's next literal text follows (the last one at the end) */
bool match(std::string_view fmt, std::string_view text, std::vector<std::string> &values);

/* loopback - an address of this host's loopback: 127.0.0.0/8, ::1 (also IPv4-mapped) */
bool loopback(const std::string &address);

} // namespace keyseal_admin

#endif
