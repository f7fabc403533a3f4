/* explain --queue-id: one message's story from the mail log, in the words of its lines */
#include "admin/explain_queue.h"

#include "admin/whitelist.h"
#include "admin/maillog.h"
#include "admin/report.h"
#include "milter/milter_conf.h"

#include "dkim/dk_key.h"
#include "dkim/dk_policy.h"
#include "milter/milter_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace keyseal_admin
{

namespace
{

/* What the lines of one queue id say, the latest line of a kind winning */
struct Story {
    std::vector<std::string> lines;       /* as the log holds them, in order */
    std::string client, sender;           /* from Postfix's smtpd and qmgr/pickup lines */
    int decision = -1;                    /* the handler's: a Kind, or -1 */
    std::string decided;                  /* the decision's value: the variable's */
    Classified failure{Kind::Detail, ""}; /* the handler's failing line, best named */
    std::string not_signed, not_host;     /* keyseal-milter's reasons */
    bool strict = false, permanent = false, null_sender = false;
    std::vector<std::string> misaligned; /* d=, From: domain */
    std::string alignment;               /* another line on the From: header */
    std::vector<std::string> long_line;  /* warned of: the line, its length, the limit */
    std::vector<std::string> folded;     /* how many lines, the limit, the first */
};

/* appendf - printf onto out */
__attribute__((format(printf, 2, 3))) void appendf(std::string &out, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    if (n < 0) throw Problem("out of memory");
    out += text;
    free(text);
}

/* postfix_line - the lines that say where a message came from and what Postfix did with
 * the milter's answer */
bool postfix_line(const SyslogLine &s, const std::string &rest)
{
    if (s.ident.compare(0, 7, "postfix") != 0) return false;
    for (const char *start : {"client=", "message-id=", "from=", "uid=", "milter-"})
        if (rest.compare(0, strlen(start), start) == 0) return true;
    return false;
}

/* value_of - NAME=VALUE's value in Postfix's "a=x, b=<y>" list, angle brackets dropped */
std::string value_of(const std::string &rest, const std::string &name)
{
    size_t at = rest.find(name + "=");
    if (at == std::string::npos) return "";
    at += name.size() + 1;
    std::string v = rest.substr(at, rest.find_first_of(", ", at) - at);
    if (v.size() >= 2 && v.front() == '<' && v.back() == '>') v = v.substr(1, v.size() - 2);
    return v;
}

void add(Story &st, const std::string &id, std::string_view raw, time_t now)
{
    SyslogLine s;
    if (!parse_syslog(raw, now, s)) return;
    const std::string head = id + ": ";
    if (s.message.compare(0, head.size(), head) != 0) return;
    std::string rest = s.message.substr(head.size());
    std::vector<std::string> v;
    if (s.ident == MILTER_IDENT) {
        if (milter_line(MILTER_LOG_NULL_SENDER, rest, v)) {
            st.null_sender = true;
        } else if (milter_line(MILTER_LOG_NOT_HOST, rest, v)) {
            st.not_host = v[0];
        } else if (milter_line(MILTER_LOG_NOT_SIGNED, rest, v)) {
            st.not_signed = v[0];
        } else if (milter_line(MILTER_LOG_TEMPFAIL, rest, v)) {
            st.not_signed = v[0], st.strict = true;
        } else if (milter_line(MILTER_LOG_PERMANENT, rest, v)) {
            st.not_signed = v[0], st.permanent = true;
        } else if (milter_line(MILTER_LOG_MISALIGNED, rest, v)) {
            st.misaligned = v;
        } else if (milter_line(MILTER_LOG_LONG_LINE, rest, v)) {
            st.long_line = v;
        } else if (milter_line(MILTER_LOG_FOLDED, rest, v)) {
            st.folded = v;
        } else if (milter_line(MILTER_LOG_NO_FROM, rest, v) ||
                   milter_line(MILTER_LOG_MANY_FROM, rest, v)) {
            st.alignment = rest;
        }
    } else if (s.ident == REPORT_HANDLER_IDENT) {
        Classified c = classify(rest);
        if (is_decision(c.kind))
            st.decision = (int)c.kind, st.decided = c.value;
        else if (st.failure.value.empty() || failure_rank(c.kind) < failure_rank(st.failure.kind))
            st.failure = c;
    } else if (postfix_line(s, rest)) {
        if (rest.compare(0, 7, "client=") == 0) st.client = value_of(rest, "client");
        if (rest.compare(0, 5, "from=") == 0 || rest.compare(0, 4, "uid=") == 0)
            st.sender = value_of(rest, "from");
    } else {
        return;
    }
    std::string line(raw);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    st.lines.push_back(line);
}

/* key_advice - what to run for a key the handler could not get */
void key_advice(std::string &out, const std::string &path)
{
    std::vector<std::string> key;
    if (!match(DK_KEY_PATH_FORMAT, path, key) || key.size() != 2 || key[0].empty()) {
        appendf(out, "rule: the sender has no domain to sign for (a bounce's null sender)\n"
                     "to change it: nothing to change; such mail goes out unsigned\n");
        return;
    }
    std::string sel = key[1] == DK_DEFAULT_SELECTOR ? "" : " --selector " + key[1];
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        appendf(out,
                "rule: a message is signed with the key of its sender's domain; %s was not "
                "readable then, and exists now\n"
                "to change it: keyseal-admin check %s%s (and postfix check: user %s must read "
                "it)\n",
                path.c_str(), key[0].c_str(), sel.c_str(), MILTER_USER);
        return;
    }
    appendf(out,
            "rule: a message is signed with the key of its sender's domain, and %s has none "
            "(%s)\n"
            "to change it: keyseal-admin keygen %s%s, publish the record it prints, then "
            "keyseal-admin check %s%s; a domain this server should not sign for needs nothing\n",
            key[0].c_str(), path.c_str(), key[0].c_str(), sel.c_str(), key[0].c_str(), sel.c_str());
}

void skipped_advice(std::string &out, const std::string &client)
{
    if (client == DK_LOG_NO_CLIENT) {
        appendf(out, "rule: not submitted with sendmail, no SMTP login, and no client address to "
                     "look up in the whitelist\n"
                     "to change it: keyseal-admin postfix check (keyseal-milter passes every SMTP "
                     "client's address)\n");
        return;
    }
    appendf(out,
            "rule: the SMTP client %s did not log in (SMTP AUTH) and is not on the whitelist; "
            "only mail submitted with sendmail on this server counts as local%s\n",
            client.c_str(), loopback(client) ? ", not a client at a loopback address" : "");
    if (loopback(client))
        appendf(out, "to change it: %s\n", LOOPBACK_HINT);
    else
        appendf(out,
                "to change it: have the client log in with SMTP AUTH (its mail is then signed "
                "as the user it proves to be), or keyseal-admin whitelist add %s (every "
                "sender at that address then gets its mail signed: only for a host you trust)\n",
                (client + (client.find(':') == std::string::npos ? "/32" : "/128")).c_str());
}

void signed_rule(std::string &out, const Story &st)
{
    switch ((Kind)st.decision) {
    case Kind::Sendmail:
        appendf(out,
                "rule: submitted on this server with sendmail (" DK_ENV_SENDMAIL "=%s): local "
                "submission is signed\n",
                st.decided.c_str());
        break;
    case Kind::Authorized:
        appendf(out,
                "rule: the SMTP client logged in as %s (SMTP AUTH): authenticated mail is "
                "signed\n",
                st.decided.c_str());
        break;
    default: {
        std::string entry = whitelist_entry(st.decided);
        appendf(out,
                "rule: the SMTP client %s is on the whitelist%s\n"
                "to change it: keyseal-admin whitelist remove NETWORK stops signing its "
                "unauthenticated mail\n",
                st.decided.c_str(),
                entry.empty() ? " (no entry admits it now)"
                              : (" (now admitted by " + entry + ")").c_str());
    }
    }
    if (!st.misaligned.empty())
        appendf(out,
                "note: signed d=%s but the From: header's domain is %s: receivers' DMARC will not "
                "align; send with an envelope sender of %s, or set signing_domain header in "
                "/etc/keyseal/milter.conf and keyseal-admin keygen %s\n",
                st.misaligned[0].c_str(), st.misaligned[1].c_str(), st.misaligned[1].c_str(),
                st.misaligned[1].c_str());
    else if (!st.alignment.empty())
        appendf(out, "note: %s\n", st.alignment.c_str());
    if (st.long_line.size() == 3)
        appendf(out,
                "note: %s is %s characters long, more than Postfix's SMTP line limit of %s: "
                "Postfix broke it after signing, so receivers could not verify the signature; "
                "set long_lines fold in /etc/keyseal/milter.conf to fold such lines before "
                "signing, as Postfix folds them\n",
                st.long_line[0].c_str(), st.long_line[1].c_str(), st.long_line[2].c_str());
    if (st.folded.size() == 3)
        appendf(out,
                "note: long lines folded before signing, as Postfix's SMTP client folds them: "
                "%s longer than its line limit of %s, the first %s; receivers get the bytes "
                "Postfix alone would send, with a signature that verifies\n",
                st.folded[0].c_str(), st.folded[1].c_str(), st.folded[2].c_str());
}

/* tell - the story's lines, the verdict, the rule and what would change it */
std::string tell(const Story &st)
{
    std::string out;
    for (const auto &line : st.lines)
        appendf(out, "log: %s\n", line.c_str());
    if (!st.client.empty()) appendf(out, "client: %s\n", st.client.c_str());
    if (!st.sender.empty()) appendf(out, "sender: %s\n", st.sender.c_str());
    const char *held = st.strict ? " (strict: Postfix answered 451 and the client retries)" : "";
    if (st.null_sender) {
        appendf(out,
                "verdict: not signed\n"
                "rule: a bounce (null sender) has no domain to sign for; keyseal-milter passes it "
                "on unsigned\nto change it: nothing to change\n");
    } else if (!st.not_host.empty()) {
        appendf(out,
                "verdict: not signed\n"
                "rule: the envelope sender's domain '%s' is not a host name; keyseal-milter does "
                "not give it to the handler\n"
                "to change it: the sending program must use a real address\n",
                st.not_host.c_str());
    } else if (st.decision >= 0 && (Kind)st.decision != Kind::NotSigning &&
               st.failure.value.empty() && st.not_signed.empty()) {
        appendf(out, "verdict: signed\n");
        signed_rule(out, st);
    } else if ((Kind)st.decision == Kind::NotSigning && st.failure.value.empty()) {
        appendf(out, "verdict: not signed (SKIP)\n");
        skipped_advice(out, st.decided);
    } else if (st.failure.kind == Kind::NoKey) {
        appendf(out, "verdict: failed, not signed%s\n", held);
        key_advice(out, st.failure.value);
    } else if (!st.failure.value.empty() || !st.not_signed.empty()) {
        std::string why = !st.failure.value.empty() ? st.failure.value : st.not_signed;
        appendf(out, "verdict: failed, not signed%s\n", held);
        appendf(out, "rule: a message the rules admit is signed unless signing fails: %s%s\n",
                why.c_str(), st.permanent ? " (a retry would fail the same way)" : "");
        appendf(out,
                "to change it: keyseal-admin postfix check, and keyseal-admin check for the "
                "sender's domain%s\n",
                st.sender.find('@') != std::string::npos
                    ? (" (keyseal-admin check " + st.sender.substr(st.sender.rfind('@') + 1) + ")")
                          .c_str()
                    : "");
    } else {
        appendf(out,
                "verdict: not signed: keyseal-milter never saw this message\n"
                "rule: no keyseal-milter or keyseal line carries this queue id; Postfix did not "
                "pass the message to the milter\n"
                "to change it: keyseal-admin postfix check (smtpd_milters, non_smtpd_milters, "
                "the socket)\n");
    }
    return out;
}

} // namespace

int cmd_explain_queue(const std::string &id, const std::vector<std::string> &files)
{
    if (id.empty() || id.find_first_of(" :") != std::string::npos)
        throw Usage("--queue-id takes Postfix's queue id, as in its log lines: '" + id + "'");
    time_t now = time(nullptr);
    Story st;
    /* the mail facility: Postfix's lines, keyseal-milter's and the handler's */
    read_mail_log("explain", files, {"SYSLOG_FACILITY=2"},
                  [&](std::string_view line) { add(st, id, line, now); });
    if (st.lines.empty())
        throw Problem("queue id " + id + " is not in " +
                      (files.empty() ? std::string("the journal") : "the files named") +
                      ": name the mail log files that cover its time (e.g. " MAILLOG_DEFAULT "*)");
    fputs(tell(st).c_str(), stdout);
    return EXIT_OK;
}

std::string explain_queue_id(const std::string &id, const std::vector<std::string> &lines,
                             time_t now)
{
    Story st;
    for (const auto &line : lines)
        add(st, id, line, now);
    return st.lines.empty() ? "" : tell(st);
}

} // namespace keyseal_admin
