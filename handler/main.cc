/*
 * keyseal - the DKIM signing handler of the mail handler chain.
 *
 * keyseal CONTEXT FROM TO...   (message on standard input)
 * Signs outbound mail of local users with the sender domain's key and writes
 * the message back with the new DKIM-Signature header first.  Verdict: "PASS"
 * and exit 0, "SKIP" and exit 5 (standard input not read), exit 255 on error.
 */
#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "mailhandler/mh_handler.h"
#include "util/halyx_log.h"
#include "util/halyx_string.h"

#include <syslog.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

enum {
    EXIT_SIGNED = 0,
    EXIT_SKIPPED = 5,
    EXIT_FAILED = 255,
};

static const char SIGNATURE_HEADER[] = "DKIM-Signature:";

/* signs_for - the line carries a d= tag naming domain exactly; -1 if it cannot be parsed */
static int signs_for(line_sections *ls, const char *text, const char *domain)
{
    if (line_parse(ls, text) < 0) return -1;
    char *d = get_section_by_prefix(ls, "d=");
    if (d == nullptr) return 0;
    halyx_rtrim(d);
    size_t len = strlen(d);
    if (len > 0 && d[len - 1] == ';') d[len - 1] = '\0';
    return strcmp(d + 2, domain) == 0;
}

/*
 * remove_old_signatures - cut DKIM-Signature headers of the sender's domain.
 * Deliberate and relied upon: the search for d= runs on past the header's own
 * lines, the cut starts where the search started, and the node right after a
 * cut is passed over, so a second adjacent signature of the domain stays.
 * Returns 1 when something was cut, 0 when not, -1 when a line cannot be parsed.
 */
static int remove_old_signatures(mail_me *me, const char *domain, line_sections *ls)
{
    int changed = 0;
    me_header *node = me->headers.first;
    while (node != nullptr) {
        if (strncmp(node->text, SIGNATURE_HEADER, sizeof(SIGNATURE_HEADER) - 1) != 0) {
            node = node->next;
            continue;
        }
        int found = 0;
        for (me_header *probe = node; probe != nullptr && found == 0; probe = probe->next)
            found = signs_for(ls, probe->text, domain);
        if (found < 0) return -1;
        if (found == 0) return changed;
        me_header *after = me_header_cut(&me->headers, node);
        changed = 1;
        node = after != nullptr ? after->next : nullptr;
    }
    return changed;
}

/* read_key - the sender domain's key into key (DK_KEY_BUFFER + 1 bytes); 0 or -1 after logging */
static int read_key(const char *domain, const char *selector, char *key)
{
    char *path = dk_key_path(domain, selector);
    size_t length;
    int status = dk_key_read(path, key, &length);
    if (status != DK_KEY_OK) {
        char *why = dk_key_failure(status, path);
        halyx_log(LOG_ERR, "%s", why);
        free(why);
    }
    free(path);
    return status == DK_KEY_OK ? 0 : -1;
}

/* sign_message - sign the spool file and put the header first; 0 or -1 after logging */
static int sign_message(mail_me *me, const char *domain, const char *selector, const char *key)
{
    FILE *msg = fopen(me->spool_path, "r");
    if (msg == nullptr) {
        halyx_log(LOG_ERR, "DKIM error: %s", "cannot reopen the spooled message");
        return -1;
    }
    dk_result *r = keyseal(domain, selector, key, msg);
    fclose(msg);
    char *failure = dk_result_failure(r);
    int rc = 0;
    if (failure != nullptr) {
        halyx_log(LOG_ERR, "%s", failure);
        free(failure);
        rc = -1;
    } else if (me_header_add(&me->headers, 1, nullptr, r->text) != 0) {
        rc = -1;
    }
    dk_result_free(r);
    return rc;
}

/* handle - everything after spooling; the caller removes the spool file */
static int handle(mh_handler_context *ctx, mail_me *me)
{
    line_sections ls;
    int cut = remove_old_signatures(me, ctx->from_domain, &ls);
    if (cut < 0 || (cut > 0 && mail_tmpfile_replace(me) != 0)) {
        halyx_log(LOG_ERR, "Unable to modify the email's header");
        return EXIT_FAILED;
    }

    char *selector = dk_selector_from_context(ctx->context);
    char key[DK_KEY_BUFFER + 1];
    int rc = read_key(ctx->from_domain, selector, key);
    if (rc == 0) rc = sign_message(me, ctx->from_domain, selector, key);
    explicit_bzero(key, sizeof(key));
    free(selector);
    if (rc != 0 || mail_tmpfile_to_stdout(me) != 0) return EXIT_FAILED;
    fwrite("PASS", 1, 4, stderr);
    return EXIT_SIGNED;
}

int main(int argc, char **argv)
{
    if (mh_std_fds_open() != 0) return EXIT_FAILED; /* nothing can be logged safely */
    mh_handler_context ctx;
    if (mh_handler_prepare(&ctx, argc, argv) != 0) {
        halyx_log(LOG_ERR, "Unable to intialize keyseal mail handler");
        return EXIT_FAILED;
    }
    char *decision = nullptr;
    int rule = dk_policy_decide(&decision);
    halyx_log(LOG_INFO, "%s", decision);
    free(decision);
    if (rule == DK_POLICY_SKIP) {
        fwrite("SKIP", 1, 4, stderr);
        return EXIT_SKIPPED;
    }

    mail_spool_guard();
    mail_me *me = mail_stdin_to_tmpfile();
    if (me == nullptr) {
        halyx_log(LOG_ERR, "Unable to save email into the temporary file");
        return EXIT_FAILED;
    }
    int status = handle(&ctx, me);
    mail_me_free(me);
    return status;
}
