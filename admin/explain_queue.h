/*
 * explain_queue - `keyseal-admin explain --queue-id`: one message's story from the mail log
 * (files, or the journal), in the words of its lines: the verdict, the rule and what would
 * change it.
 *
 * cmd_explain_queue returns the exit status (1 when the queue id is not in the log) and
 * throws Problem when the log cannot be read; explain_queue_id is pure.
 */
#ifndef KEYSEAL_ADMIN_EXPLAIN_QUEUE_H
#define KEYSEAL_ADMIN_EXPLAIN_QUEUE_H

#include "admin/admin.h"

#include <ctime>
#include <string>
#include <vector>

namespace keyseal_admin
{

/* cmd_explain_queue - what the mail log (files, or the journal) says became of Postfix's
 * queue id: its lines, the verdict, the rule and what would change it; 1 when not there */
int cmd_explain_queue(const std::string &id, const std::vector<std::string> &files);
/* explain_queue_id - what cmd_explain_queue prints for these mail log lines; "" when none
 * is of that queue id */
std::string explain_queue_id(const std::string &id, const std::vector<std::string> &lines,
                             time_t now);

} // namespace keyseal_admin

#endif
