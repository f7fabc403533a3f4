/*
 * long_lines - lines longer than Postfix's SMTP line limit, found as a message streams in
 * and broken the way Postfix's SMTP client breaks them.
 *
 * Postfix's SMTP client sends a line longer than smtp_line_length_limit as its first LIMIT
 * characters, then as many continuation lines as it takes, each a space and at most
 * LIMIT - 1 further characters; a line of exactly LIMIT characters goes out as it is.  It
 * does so after keyseal-milter signed the message, so a receiver verifies other bytes
 * than were signed.  Breaking such lines the same way before signing makes the receiver
 * see the very bytes Postfix would have sent, only now with a signature that holds.
 *
 * LineMeter counts the longest line of a byte stream fed in pieces of any size (a line
 * end split between pieces included); a line's length leaves out its CR LF or LF, as
 * Postfix's queue file does.  fold() takes a whole message as the session keeps it (CR LF
 * line ends, a blank line after the header) and returns the folded copy with the edits
 * that make the mail server's copy the same; it allocates nothing else and throws only
 * std::bad_alloc.  Nothing here logs or ends the process.
 */
#ifndef KEYSEAL_MILTER_LONG_LINES_H
#define KEYSEAL_MILTER_LONG_LINES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace keyseal_milter
{

class LineMeter
{
  public:
    void feed(const char *data, size_t length);
    /* longest - the longest line so far, a last line without its end included */
    size_t longest() const { return now_ > longest_ ? now_ : longest_; }

  private:
    size_t now_ = 0;     /* the current line's length so far */
    size_t longest_ = 0; /* of the lines ended so far */
    bool cr_ = false;    /* the byte before the current piece was a CR */
};

/* HeaderEdit - one header field folded, as the milter protocol replaces it: the NAME's
 * INDEXth field (from 1, names compared in any letter case), the VALUE after its colon
 * with LF line breaks */
struct HeaderEdit {
    std::string name;
    int index = 0;
    std::string value;
};

struct Folding {
    std::string message;             /* the whole message folded (CR LF) */
    size_t body_at = 0;              /* where its body starts in message */
    bool body_folded = false;        /* some body line was broken */
    std::vector<HeaderEdit> headers; /* the header fields with a line broken */
    int lines = 0;                   /* how many lines were broken */
    std::string first;               /* the first: "header NAME:" or "body line N" */
    size_t first_length = 0;         /* ... and its length */
    /* a field whose name alone passes the limit: Postfix breaks the name, which no header
     * edit can say; "" when there is none */
    std::string name_too_long;
};

/* fold_line - one line (without its end) broken at limit as Postfix's SMTP client breaks
 * it, the pieces joined by eol followed by a space; limit is at least 2 */
std::string fold_line(std::string_view line, size_t limit, std::string_view eol);

/* fold - the message with every line longer than limit broken */
Folding fold(std::string_view message, size_t limit);

} // namespace keyseal_milter

#endif
