/*
 * mail_me - the message spooled to a file, with its header block in memory.
 *
 * mail_stream_to_tmpfile() reads a message (the handler's standard input) into a
 * new spool file under MAIL_SPOOL_DIR (which must exist) and returns the record,
 * or NULL after logging why.  The record owns its spool path, its header list and the spool
 * file itself: mail_me_free() unlinks the file.  Bodies are streamed in
 * 8192-byte chunks, never held in memory.
 *
 * int functions return 0 or -1; each logs its own failure at level 3.
 *
 * Every spool file a record creates is registered from the moment mkstemp makes
 * it until it is unlinked, so that mail_spool_guard() can remove it even when the
 * process is killed by a timeout signal or ends through exit().
 *
 * A message that is read once and never written out (keyseal-milter's) needs no spool
 * file: mail_stream_headers() reads only its header block into a record without one
 * (spool_path NULL), and mail_stream_edited() gives the bytes the spool file would hold,
 * the header list as it stands followed by the rest of the input, unread until then.
 */
#ifndef MAIL_ME_H
#define MAIL_ME_H

#include "mailhandler/me_header.h"

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MAIL_SPOOL_DIR "/usr/local/hlx/handlers/spool"
#define MAIL_SPOOL_STEM "message" /* spool file names: the stem and 6 characters of mkstemp */
#define MAIL_SPOOL_TEMPLATE "%s/" MAIL_SPOOL_STEM "XXXXXX"
#define MAIL_SPOOL_RANDOM 6
/* The spool directory's modes, sticky so that nobody removes another's file: a source
 * install lets every user create files; the package lets only its group's members */
#define MAIL_SPOOL_MODE 01733
#define MAIL_SPOOL_GROUP_MODE 01730

typedef struct mail_me {
    const char *line_end;    /* "\r\n" or "\n": the separator after the header block */
    const char *fold_indent; /* "\t" or eight spaces */
    char *spool_path;
    me_header_list headers;
} mail_me;

mail_me *mail_stream_to_tmpfile(FILE *in);
/* mail_stream_headers - in's header block into a record without a spool file; in is left
 * at the body.  NULL after logging why. */
mail_me *mail_stream_headers(FILE *in);
/* mail_stream_edited - a read stream of the message as mail_stream_to_tmpfile and
 * mail_tmpfile_replace would spool it now: the header list written out, then in read on
 * from where it stands.  The caller closes it (in stays open and is read only through
 * it); a failed read of in is the stream's error.  NULL when memory runs out. */
FILE *mail_stream_edited(mail_me *me, FILE *in);
/* mail_tmpfile_replace - rewrite the spool file from the header list; on failure
 * the record keeps the old, untouched file */
int mail_tmpfile_replace(mail_me *me);
/* mail_tmpfile_to_stream - the edited message to out (the handler's standard output):
 * -1 only when the header block cannot be written; a failed body copy is logged and
 * still gives 0 */
int mail_tmpfile_to_stream(mail_me *me, FILE *out);
void mail_me_free(mail_me *me);
/* mail_spool_guard - from now on the signals (0-ended; NULL: the handler's SIGTERM, SIGHUP
 * and SIGALRM) unlink the registered spool files and then kill the process with the same
 * signal (default action), and exit() unlinks them too.  Installs process-wide signal
 * dispositions and an atexit hook, once per process: the first call's list holds, and
 * signals past the eighth are not taken. */
void mail_spool_guard(const int *signals);

int write_fp_to_fp(FILE *in, FILE *out);

#ifdef __cplusplus
}
#endif

#endif
