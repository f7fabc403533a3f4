/*
 * line_limit - Postfix's SMTP line limit recorded for keyseal-milter, which cannot read
 * Postfix's configuration from its sandbox and folds (or warns of) longer lines by it.
 *
 * record_line_limit() sets the line_length_limit line of a keyseal-milter settings file to
 * Postfix's value, the rest of the file kept as it is (a missing file is made); it returns
 * the line keyseal-admin postfix setup prints ("changed: ..." or "unchanged: ...") and
 * throws Problem when the value is no limit keyseal-milter takes or the file cannot be
 * read or replaced.
 */
#ifndef KEYSEAL_ADMIN_LINE_LIMIT_H
#define KEYSEAL_ADMIN_LINE_LIMIT_H

#include <string>

namespace keyseal_admin
{

std::string record_line_limit(const std::string &path, const std::string &value);

} // namespace keyseal_admin

#endif
