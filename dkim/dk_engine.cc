#include "dkim/dk_engine.h"

#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mail_me.h"
#include "util/halyx_log.h"
#include "util/halyx_string.h"

#include <syslog.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <vector>

namespace
{

struct Run {
    const dk_engine_job *job;
    bool in_place; /* no spool file: the message is signed as job->in is read */
    mail_me *me;
    /* the message's DKIM-Signature headers in any letter case, in order: what the
     * observer is told was cut or kept; a cut entry's node is set to null */
    std::vector<me_header *> signatures;
};

void notify(const Run &run, int event, int number, const char *text)
{
    if (run.job->observe != nullptr) run.job->observe(run.job->data, event, number, text);
}

/* first_line - a node's text without its line end, for the observer */
std::string first_line(const char *text)
{
    return std::string(text, strcspn(text, "\r\n"));
}

/* signs_for - the line carries a d= tag naming domain exactly; -1 if it cannot be parsed */
int signs_for(line_sections *ls, const char *text, const char *domain)
{
    if (line_parse(ls, text) < 0) return -1;
    char *d = get_section_by_prefix(ls, "d=");
    if (d == nullptr) return 0;
    halyx_rtrim(d);
    size_t len = strlen(d);
    if (len > 0 && d[len - 1] == ';') d[len - 1] = '\0';
    return strcmp(d + 2, domain) == 0;
}

/* whole_header - node's text and its continuation lines', as me_header_cut takes them */
std::string whole_header(const me_header *node)
{
    std::string text = node->text;
    for (const me_header *n = node->next; n != nullptr && (n->text[0] == ' ' || n->text[0] == '\t');
         n = n->next)
        text += n->text;
    return text;
}

/* cut - remove the signature at node; returns the first node kept after it */
me_header *cut(Run &run, me_header *node)
{
    for (size_t i = 0; i < run.signatures.size(); i++) {
        if (run.signatures[i] != node) continue;
        notify(run, DK_EVENT_CUT, (int)i + 1, whole_header(node).c_str());
        run.signatures[i] = nullptr;
    }
    return me_header_cut(&run.me->headers, node);
}

/* failed - log the handler's line for a failure and tell the observer its kind */
void failed(const Run &run, int failure, const char *line)
{
    halyx_log(LOG_ERR, "%s", line);
    notify(run, DK_EVENT_FAILED, failure, line);
}

/*
 * remove_old_signatures - cut DKIM-Signature headers of the sender's domain.
 * Deliberate and relied upon: the search for d= runs on past the header's own
 * lines, the cut starts where the search started, and the node right after a
 * cut is passed over, so a second adjacent signature of the domain stays.
 * Returns 1 when something was cut, 0 when not, -1 when a line cannot be parsed.
 */
int remove_old_signatures(Run &run, const char *domain, line_sections *ls)
{
    static const size_t NAME = sizeof(DK_SIGNATURE_HEADER) - 1;
    int changed = 0;
    me_header *node = run.me->headers.first;
    while (node != nullptr) {
        if (strncmp(node->text, DK_SIGNATURE_HEADER, NAME) != 0) {
            node = node->next;
            continue;
        }
        int found = 0;
        for (me_header *probe = node; probe != nullptr && found == 0; probe = probe->next)
            found = signs_for(ls, probe->text, domain);
        if (found < 0) return -1;
        if (found == 0) return changed;
        me_header *after = cut(run, node);
        changed = 1;
        node = after != nullptr ? after->next : nullptr;
    }
    return changed;
}

/* unsigned_by - a selector failed: log why and tell the observer, naming the selector */
void unsigned_by(const Run &run, int failure, const char *selector, const char *why)
{
    failed(run, failure, why);
    if (run.job->observe == nullptr) return;
    char *path = dk_key_path(run.job->from_domain, selector);
    char *text = asprintf_safe(DK_SELECTOR_FAILED, selector, path, why);
    notify(run, DK_EVENT_UNSIGNED, failure, text);
    free(text);
    free(path);
}

/* read_key - the sender domain's key into key (DK_KEY_BUFFER + 1 bytes); 0 or -1 after logging */
int read_key(const Run &run, const char *domain, const char *selector, char *key)
{
    char *path = dk_key_path(domain, selector);
    notify(run, DK_EVENT_KEY, 0, path);
    size_t length;
    int status = dk_key_read(path, key, &length);
    if (status != DK_KEY_OK) {
        char *why = dk_key_failure(status, path);
        unsigned_by(run, DK_FAIL_KEY, selector, why);
        free(why);
    }
    free(path);
    return status == DK_KEY_OK ? 0 : -1;
}

/* message_stream - the message to sign: the spool file, or in place the header list and
 * the rest of the input; NULL after logging */
FILE *message_stream(const Run &run)
{
    FILE *msg =
        run.in_place ? mail_stream_edited(run.me, run.job->in) : fopen(run.me->spool_path, "r");
    if (msg != nullptr) return msg;
    char *why =
        asprintf_safe(DK_LOG_DKIM_ERROR, run.in_place ? "cannot read the message"
                                                      : "cannot reopen the spooled message");
    failed(run, run.in_place ? DK_FAIL_SPOOL : DK_FAIL_OUTPUT, why);
    free(why);
    return nullptr;
}

/* sign_message - sign the message once per signer and put the headers first, in the
 * signers' order; 0 when at least one signature was made, -1 after logging otherwise */
int sign_message(const Run &run, const char *domain, const std::vector<dk_signer> &signers)
{
    FILE *msg = message_stream(run);
    if (msg == nullptr) return -1;
    const dk_engine_job *job = run.job;
    std::vector<dk_result *> results(signers.size());
    keyseal_each(domain, signers.data(), signers.size(), job->sign_headers, job->oversign, msg,
                 results.data());
    /* in place, the input was read only now: a failed read is the spooling's failure */
    bool unread = run.in_place && ferror(msg);
    fclose(msg);
    if (unread) {
        halyx_log(LOG_ERR, "cannot read the e-mail's body.");
        failed(run, DK_FAIL_SPOOL, DK_LOG_SPOOL_FAILED);
    }
    std::vector<const char *> made;
    for (size_t i = 0; i < results.size() && !unread; i++) {
        char *failure = dk_result_failure(results[i]);
        if (failure == nullptr) {
            made.push_back(results[i]->text);
            continue;
        }
        int kind = dk_sign_key_failure(results[i]->status) ? DK_FAIL_KEY : DK_FAIL_MESSAGE;
        unsigned_by(run, kind, signers[i].selector, failure);
        free(failure);
    }
    int rc = made.empty() ? -1 : 0;
    /* each at the very top: the last first, so that they stand in the signers' order */
    for (auto t = made.rbegin(); rc == 0 && t != made.rend(); ++t)
        if (me_header_add(&run.me->headers, 1, nullptr, *t) != 0) rc = -1;
    for (size_t i = 0; rc == 0 && i < made.size(); i++)
        notify(run, DK_EVENT_SIGNED, (int)i, made[i]);
    for (dk_result *r : results)
        dk_result_free(r);
    return rc;
}

/* handle - everything after spooling (in place: after the header block is read); the
 * caller removes the spool file */
int handle(Run &run)
{
    const dk_engine_job *job = run.job;
    for (me_header *n = run.me->headers.first; n != nullptr; n = n->next)
        if (strncasecmp(n->text, DK_SIGNATURE_HEADER, strlen(DK_SIGNATURE_HEADER)) == 0)
            run.signatures.push_back(n);

    line_sections ls;
    int removed = remove_old_signatures(run, job->from_domain, &ls);
    if (removed < 0) {
        failed(run, DK_FAIL_HEADER, DK_LOG_HEADER_FAILED);
        return DK_ENGINE_FAILED;
    }
    if (removed > 0 && !run.in_place && mail_tmpfile_replace(run.me) != 0) {
        failed(run, DK_FAIL_SPOOL, DK_LOG_HEADER_FAILED);
        return DK_ENGINE_FAILED;
    }
    for (size_t i = 0; i < run.signatures.size(); i++)
        if (run.signatures[i] != nullptr)
            notify(run, DK_EVENT_KEPT, (int)i + 1, first_line(run.signatures[i]->text).c_str());

    /* the job's selectors, or the handler's one from CONTEXT */
    std::vector<std::string> selectors;
    for (const char *const *s = job->selectors; s != nullptr && *s != nullptr; s++)
        selectors.push_back(*s);
    if (job->selectors == nullptr) {
        char *one = dk_selector_from_context(job->context);
        selectors.push_back(one);
        free(one);
    }
    std::vector<std::vector<char>> keys;
    std::vector<dk_signer> signers;
    keys.reserve(selectors.size());
    for (const std::string &selector : selectors) {
        keys.emplace_back(DK_KEY_BUFFER + 1);
        char *key = keys.back().data();
        if (read_key(run, job->from_domain, selector.c_str(), key) != 0) continue;
        int algorithm = job->by_key_type ? dk_sign_algorithm_for(key) : DKIM_SIGN_DEFAULT;
        signers.push_back({selector.c_str(), key, algorithm});
    }
    int rc = signers.empty() ? -1 : sign_message(run, job->from_domain, signers);
    for (auto &key : keys)
        explicit_bzero(key.data(), key.size());
    if (rc != 0) return DK_ENGINE_FAILED;
    if (job->out != nullptr && mail_tmpfile_to_stream(run.me, job->out) != 0) {
        notify(run, DK_EVENT_FAILED, DK_FAIL_OUTPUT, "cannot write the signed message");
        return DK_ENGINE_FAILED;
    }
    return DK_ENGINE_SIGNED;
}

} // namespace

int dk_engine_run(const dk_engine_job *job)
{
    Run run{job, job->in_place && job->out == nullptr, nullptr, {}};
    char *decision = nullptr;
    int rule = dk_policy_decide(job->policy, &decision);
    halyx_log(LOG_INFO, "%s", decision);
    notify(run, DK_EVENT_POLICY, rule, decision);
    free(decision);
    if (rule == DK_POLICY_SKIP) return DK_ENGINE_SKIPPED;

    if (!run.in_place) mail_spool_guard(job->guard_signals);
    run.me = run.in_place ? mail_stream_headers(job->in) : mail_stream_to_tmpfile(job->in);
    if (run.me == nullptr) {
        failed(run, DK_FAIL_SPOOL, DK_LOG_SPOOL_FAILED);
        return DK_ENGINE_FAILED;
    }
    if (!run.in_place) notify(run, DK_EVENT_SPOOLED, 0, run.me->spool_path);
    int status = handle(run);
    mail_me_free(run.me);
    return status;
}

int dk_engine_retry_helps(int failure)
{
    return failure != DK_FAIL_HEADER && failure != DK_FAIL_MESSAGE;
}
