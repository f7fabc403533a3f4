/*
 * postfix_conf - Postfix's settings as data: values and lists read through postconf (main.cf,
 * master.cf's services and their -o overrides), keyseal-milter's socket as Postfix must name
 * it, the rules of a lookup table, and what keyseal-milter's signing asks of Postfix's line
 * limits.  Read only: writing them is postfix_setup's.
 *
 * Functions throw Problem when postconf fails (with postconf's own words) or Postfix is not
 * installed, and when keyseal-milter's settings cannot be read; table_rules returns false
 * with why instead.  Results are values.
 */
#ifndef KEYSEAL_ADMIN_POSTFIX_CONF_H
#define KEYSEAL_ADMIN_POSTFIX_CONF_H

#include "admin/admin.h"
#include "milter/milter_conf.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace keyseal_admin
{

/* the -o of master.cf's cleanup that marks mail submitted with sendmail */
inline constexpr char CLEANUP_MARK[] = "cleanup/unix/milter_macro_daemon_name";

/* trimmed - s without white space around it */
std::string trimmed(std::string s);
/* postconf - its output for args; Problem with postconf's own words when it fails */
std::string postconf(const std::vector<std::string> &args);
/* postconf_value - a main.cf setting as it is in effect (postconf -h) */
std::string postconf_value(const std::string &name);
/* postfix_list - a Postfix list value's items (separated by commas and white space) */
std::vector<std::string> postfix_list(const std::string &value);
/* braced_list - a Postfix list's items as Postfix splits them: at commas and white space,
 * except inside braces ("inline:{ a=b, c=d }" is one item) */
std::vector<std::string> braced_list(const std::string &value);
/* unbraced - "{ text }" as "text" */
std::string unbraced(const std::string &s);

/* Socket - keyseal-milter's socket as Postfix and this program see it */
struct Socket {
    std::string postfix;    /* the value Postfix's smtpd and cleanup must be given */
    std::string outside;    /* a unix socket's path as seen outside the chroot, or "" */
    std::string path;       /* the socket file, or "" for an inet socket */
    std::string host, port; /* an inet socket's address */
};
/* socket_for - the milter's socket as Postfix names it: a chrooted smtpd and cleanup see
 * the queue directory as /; Problem when the chrooted ones cannot reach it */
Socket socket_for(const keyseal_milter::Config &c, bool chroot);
/* milter_config - keyseal-milter's settings; Problem naming what is wrong */
keyseal_milter::Config milter_config();
/* same_chroot - whether smtpd and cleanup run chrooted; Problem when only one of them does:
 * they must see the socket under the same name */
bool same_chroot();
/* postfix_version - mail_version as major * 100 + minor (3.6 is 306) */
int postfix_version();

/* Master - master.cf's services (SERVICE/TYPE, and the first word of the command), and a
 * setting as a service has it: its -o (postconf -Px), else main.cf's (postconf -xh) */
class Master
{
  public:
    Master();
    std::vector<std::pair<std::string, std::string>> services; /* SERVICE/TYPE, command */
    bool overrides(const std::string &service, const std::string &name) const;
    std::string setting(const std::string &service, const std::string &name);
    std::string main_cf(const std::string &name);
    /* places - where name is set: main.cf ("" with its value) and each service's -o */
    std::vector<std::pair<std::string, std::string>> places(const std::string &name);

  private:
    std::map<std::string, std::string> o_, main_; /* -o: SERVICE/TYPE/NAME */
};

/* Rule - one rule of a lookup table: its line in the table's file (0 when it has none), its
 * pattern (with the delimiters) or key, and its action or value */
struct Rule {
    int line = 0;
    std::string key, action;
};
/* table_rules - a lookup table's rules: regexp:, pcre: and texthash: files (a line that
 * starts with white space continues the one before), inline: and static: values read here,
 * the indexed file types as postmap -s lists them; false, with why, when it cannot be read */
bool table_rules(std::string table, std::vector<Rule> &rules, std::string &why);

/* signed_line_limit - the longest line keyseal-milter leaves as it is in a message it signs:
 * with long_lines fold, the limit recorded from Postfix that it folds to (0: it folds
 * none); with warn, it folds none, so any line mail may carry (998 characters) */
int signed_line_limit(const keyseal_milter::Config &c);

} // namespace keyseal_admin

#endif
