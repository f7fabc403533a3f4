/*
 * verdict - what keyseal-milter does with a message once the handler has spoken: the
 * DKIM-Signature headers the mail server deletes and inserts, whether the message passes
 * or is deferred, and the log lines that say so.
 *
 * decide() and not_signed() are pure functions: no I/O, nothing logged, nothing ends the
 * process.  The session carries out the Plan in its order (deletions, then insertions)
 * and logs its lines; when the mail server refuses an edit, the session asks not_signed()
 * for the answer instead, the fault being one a retry may cure.
 *
 * The rules: a cut header is deleted only where the server holds, at that place and byte
 * for byte, what the engine cut (the handler's view of a header block can differ from the
 * server's); the new signatures go on top in the order the engine made them; a message
 * the handler skipped passes as it is; a failed one passes unsigned, except that with
 * strict a failure a retry may cure is a temporary failure.  One that would fail the
 * same way on every try passes even then: holding it would only bounce it days later.
 */
#ifndef KEYSEAL_MILTER_VERDICT_H
#define KEYSEAL_MILTER_VERDICT_H

#include "milter/records.h"

#include <cstdint>
#include <string>
#include <vector>

namespace keyseal_milter
{

enum class Disposition { PASS, TEMPFAIL };

struct LogLine {
    int level; /* syslog's */
    std::string text;
    bool operator==(const LogLine &) const = default;
};

struct Plan {
    Disposition disposition = Disposition::PASS;
    /* places among the DKIM-Signature headers the server holds (1 first), highest first, so
     * that a deletion never moves the place of one still to come */
    std::vector<uint32_t> deletions;
    /* DKIM-Signature values as the milter protocol takes them (after the name and colon,
     * LF folds, no last line end), each to be inserted at the very top in this order */
    std::vector<std::string> insertions;
    std::vector<LogLine> log;
    bool operator==(const Plan &) const = default;
};

/* TEMPFAIL's reply to the client */
#define VERDICT_REPLY_CODE "451"
#define VERDICT_REPLY_STATUS "4.7.1"
#define VERDICT_REPLY_TEXT "DKIM signing failed, try again later"

/* decide - the plan for the handler's Result r on the message with queue id id, whose
 * DKIM-Signature headers the server holds as held (in order, "Name:value\r\n" as spooled) */
Plan decide(const std::string &id, const Result &r, const std::vector<std::string> &held,
            bool strict);

/* not_signed - the plan for a message that was not signed for the reason why */
Plan not_signed(const std::string &id, const std::string &why, bool retry, bool strict);

/* header_value - "DKIM-Signature: value\n\tmore\n" as the milter protocol takes a value */
std::string header_value(const std::string &header);

} // namespace keyseal_milter

#endif
