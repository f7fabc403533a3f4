#include "milter/session.h"

#include "milter/align.h"
#include "milter/client_filter.h"
#include "milter/helper.h"
#include "milter/job.h"
#include "milter/long_lines.h"
#include "milter/metrics.h"
#include "milter/milter_log.h"
#include "milter/supervisor.h"
#include "milter/verdict.h"

#include "dkim/dk_key.h"
#include "dkim/dk_sign.h"
#include "mailhandler/mh_handler.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace keyseal_milter
{

namespace
{

const Settings *settings_ = nullptr;
Helper *helper_ = nullptr;
std::atomic<int> in_flight_{0};

/* Stages whose answer is always "continue" until the end of the message: the server is
 * told not to wait for it, and stages the milter has no use for are not sent at all.
 * Each answer saved is a round trip between the server's process and a milter thread. */
constexpr unsigned long NO_REPLY =
    SMFIP_NR_CONN | SMFIP_NR_MAIL | SMFIP_NR_RCPT | SMFIP_NR_HDR | SMFIP_NR_EOH | SMFIP_NR_BODY;
constexpr unsigned long NOT_SENT = SMFIP_NOHELO | SMFIP_NOUNKNOWN | SMFIP_NODATA;

/* Most mail is small: it is kept in the session's memory and written to a memory file in
 * one piece at its end.  One that outgrows this goes to a nameless disk file as it comes,
 * so that a large message costs no more memory than this. */
constexpr size_t IN_MEMORY_MAX = 64 * 1024;

/* A folded body goes back to the mail server in pieces of the protocol's chunk size */
constexpr size_t BODY_PIECE = 65535;

struct Session {
    unsigned long no_reply = 0; /* the NO_REPLY stages this server agreed to */
    std::string client;         /* the SMTP client's address, "" when unknown */
    bool local = false;         /* {daemon_name} at connect was the local mark */
    /* the message in progress */
    std::shared_ptr<const Config> config; /* the settings it began with */
    bool in_message = false;
    std::string sender, domain, auth, queue_id;
    bool not_host = false; /* the sender's domain is no host name: not for the handler */
    std::vector<std::string> rcpts;
    std::vector<std::string> signatures; /* the DKIM-Signature headers as kept, in order */
    std::vector<std::string> from;       /* the From: addresses' domains ("": none) */
    bool keep = false;                   /* the message is kept for the handler */
    std::string kept;                    /* ... in memory, while fd < 0 */
    int fd = -1;                         /* ... or in this disk file */
    int write_errno = 0;                 /* not 0: the message could not be kept, for this reason */
    std::string unsignable;              /* why a signature of this message could never verify */
    LineMeter head, body;                /* the longest header and body lines */

    void reset_message()
    {
        if (fd >= 0) close(fd);
        fd = -1;
        keep = false;
        kept.clear();
        write_errno = 0;
        unsignable.clear();
        head = body = LineMeter();
        not_host = false;
        config.reset();
        sender.clear(), domain.clear(), auth.clear(), queue_id.clear(), rcpts.clear();
        signatures.clear(), from.clear();
        if (in_message) in_flight_--;
        in_message = false;
    }
    ~Session() { reset_message(); }

    /* go - "continue" for a stage, without an answer where the server agreed to that */
    sfsistat go(unsigned long stage) const
    {
        return no_reply & stage ? SMFIS_NOREPLY : SMFIS_CONTINUE;
    }
};

Session *session(SMFICTX *ctx)
{
    return static_cast<Session *>(smfi_getpriv(ctx));
}

std::string macro(SMFICTX *ctx, const char *name)
{
    const char *v = smfi_getsymval(ctx, (char *)name);
    return v != nullptr ? v : "";
}

/* address - an envelope address without the angle brackets the milter protocol keeps */
std::string address(const char *arg)
{
    std::string a = arg != nullptr ? arg : "";
    return a.size() >= 2 && a.front() == '<' && a.back() == '>' ? a.substr(1, a.size() - 2) : a;
}

/* disk_file - a nameless temporary file: nothing is left behind, however we end */
int disk_file()
{
    const char *dir = getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp";
    int fd = open(dir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR)) return fd;
    std::string path = std::string(dir) + "/keyseal-milter.XXXXXX";
    fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0) unlink(path.c_str());
    return fd;
}

/* flush - what is kept in memory into the file fd; 0 or an errno */
int flush(Session *s, int fd)
{
    if (write_all(fd, s->kept.data(), s->kept.size()) != 0) return errno;
    s->kept.clear();
    s->kept.shrink_to_fit();
    return 0;
}

void append(Session *s, const char *data, size_t length)
{
    if (!s->keep || s->write_errno != 0) return;
    if (s->fd < 0 && s->kept.size() + length > IN_MEMORY_MAX) {
        s->fd = disk_file();
        s->write_errno = s->fd < 0 ? errno : flush(s, s->fd);
    }
    if (s->write_errno != 0) return;
    if (s->fd >= 0) {
        if (write_all(s->fd, data, length) != 0) s->write_errno = errno;
    } else
        s->kept.append(data, length);
}

/* message_file - the message in a file for the handler: the disk file, or a memory file
 * holding what was kept; -1 with errno */
int message_file(Session *s)
{
    if (s->fd >= 0) return s->fd;
    int fd = memfd_create("keyseal-milter message", MFD_CLOEXEC);
    if (fd < 0) fd = disk_file();
    if (fd < 0) return -1;
    if (int err = flush(s, fd); err != 0) {
        close(fd);
        return errno = err, -1;
    }
    return s->fd = fd;
}

sfsistat on_negotiate(SMFICTX *ctx, unsigned long f0, unsigned long f1, unsigned long,
                      unsigned long, unsigned long *pf0, unsigned long *pf1, unsigned long *pf2,
                      unsigned long *pf3)
{
    /* the body is replaced only to fold its long lines */
    *pf0 = f0 & (SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY);
    /* header values exactly as they stand, leading space included: the handler signs
     * what the receiver will see */
    *pf1 = f1 & (SMFIP_HDR_LEADSPC | SMFIP_SKIP | NOT_SENT);
    *pf2 = *pf3 = 0;
    /* the session is made here, so that it knows which answers the server waits for; without
     * one, every stage answers and a message the milter cannot follow is refused at its end */
    auto *s = new (std::nothrow) Session;
    if (s != nullptr) {
        s->no_reply = f1 & NO_REPLY;
        *pf1 |= s->no_reply;
        smfi_setpriv(ctx, s);
    }
    /* the macros the policy needs, whatever the site set in its *_macros parameters */
    smfi_setsymlist(ctx, SMFIM_CONNECT, (char *)"{daemon_name}");
    smfi_setsymlist(ctx, SMFIM_ENVFROM, (char *)"i {auth_authen}");
    smfi_setsymlist(ctx, SMFIM_EOM, (char *)"i");
    return SMFIS_CONTINUE;
}

sfsistat on_connect(SMFICTX *ctx, char *, _SOCK_ADDR *addr)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    /* {daemon_name} is read here: later stages may carry cleanup's value instead */
    s->local = macro(ctx, "{daemon_name}") == MILTER_LOCAL_MARK;
    /* the address from the connect call: {client_addr} is not among the default macros */
    s->client = address_text(addr);
    return s->go(SMFIP_NR_CONN);
}

sfsistat on_envfrom(SMFICTX *ctx, char **argv)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    s->reset_message();
    s->in_message = true;
    in_flight_++;
    s->config = settings_->get();
    s->sender = address(argv[0]);
    s->auth = macro(ctx, "{auth_authen}");
    s->queue_id = macro(ctx, "i");
    if (s->sender.empty()) return s->go(SMFIP_NR_MAIL);
    /* the domain as the mail server compares it; one that is no host name could name a
     * key path anywhere, and is no domain a key was made for */
    char *domain = dk_domain_canonical(mh_from_domain(s->sender.c_str()));
    s->not_host = domain == nullptr;
    s->domain = domain != nullptr ? domain : "";
    free(domain);
    s->keep = !s->not_host;
    return s->go(SMFIP_NR_MAIL);
}

sfsistat on_envrcpt(SMFICTX *ctx, char **argv)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    s->rcpts.push_back(address(argv[0]));
    return s->go(SMFIP_NR_RCPT);
}

/* signed_field - the header is among those the settings sign */
bool signed_field(const Config &c, const char *name)
{
    for (const std::string &h : c.headers)
        if (strcasecmp(h.c_str(), name) == 0) return true;
    return false;
}

/* header_line - a field as the message holds it: the milter protocol gives folded values
 * bare LF line breaks, the message is CR LF throughout */
std::string header_line(const std::string &name, const std::string &value)
{
    std::string line = name + ":";
    line.reserve(line.size() + value.size() + 2);
    for (size_t i = 0; i < value.size(); i++) {
        if (value[i] == '\n' && (i == 0 || value[i - 1] != '\r')) line += '\r';
        line += value[i];
    }
    return line + "\r\n";
}

sfsistat on_header(SMFICTX *ctx, char *name, char *value)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    if (!s->keep) return s->go(SMFIP_NR_HDR);
    std::string line = header_line(name, value);
    append(s, line.data(), line.size());
    if (s->config->line_length_limit > 0) s->head.feed(line.data(), line.size());
    /* the mail server numbers a header among those of its name, in any letter case */
    if (strcasecmp(name, "DKIM-Signature") == 0) s->signatures.push_back(line);
    if (strcasecmp(name, "From") == 0)
        for (std::string &d : from_domains(value))
            s->from.push_back(std::move(d));
    if (s->unsignable.empty() && signed_field(*s->config, name)) {
        size_t n = dk_sign_canonical_length(line.data(), line.size());
        if (n > DK_SIGN_FIELD_MAX)
            s->unsignable = std::string("its ") + name + ": header is " + std::to_string(n) +
                            " bytes unfolded, more than the signer hashes whole (" +
                            std::to_string(DK_SIGN_FIELD_MAX) + ")";
    }
    return s->go(SMFIP_NR_HDR);
}

sfsistat on_eoh(SMFICTX *ctx)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    append(s, "\r\n", 2);
    return s->go(SMFIP_NR_EOH);
}

sfsistat on_body(SMFICTX *ctx, unsigned char *chunk, size_t length)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_CONTINUE;
    append(s, (const char *)chunk, length);
    /* a line longer than Postfix's SMTP line limit: seen here, at no cost but a scan for
     * line ends, so that only such a message is read again at its end */
    if (s->keep && s->config->line_length_limit > 0) s->body.feed((const char *)chunk, length);
    return s->go(SMFIP_NR_BODY);
}

/* carry_out - the plan on the message as the mail server holds it, its lines logged; an
 * edit the server refuses makes it a message not signed.  Counted with reason, unless the
 * server refused; ns as metrics_message() takes it. */
sfsistat carry_out(SMFICTX *ctx, const Session &s, const std::string &id, const Plan &plan,
                   Reason reason, int64_t ns = -1)
{
    const char *failed = nullptr;
    for (uint32_t place : plan.deletions)
        if (failed == nullptr &&
            smfi_chgheader(ctx, (char *)"DKIM-Signature", (int)place, nullptr) != MI_SUCCESS)
            failed = "the mail server refused to remove an old signature";
    for (const std::string &value : plan.insertions)
        if (failed == nullptr &&
            smfi_insheader(ctx, 0, (char *)"DKIM-Signature", (char *)value.c_str()) != MI_SUCCESS)
            failed = "the mail server refused the new signature header";
    if (failed != nullptr)
        return carry_out(ctx, s, id, not_signed(id, failed, true, s.config->strict),
                         Reason::SERVER_REFUSED, ns);
    for (const LogLine &l : plan.log)
        halyx_log(l.level, "%s", l.text.c_str());
    Outcome o = !plan.insertions.empty()                    ? Outcome::SIGNED
                : plan.disposition == Disposition::TEMPFAIL ? Outcome::DEFERRED
                : plan.log.empty()                          ? Outcome::SKIPPED
                                                            : Outcome::FAILED;
    metrics_message(metrics(), o, reason, s.domain, ns);
    if (o == Outcome::SIGNED) metrics_signatures(metrics(), plan.insertions);
    if (plan.disposition == Disposition::TEMPFAIL) {
        smfi_setreply(ctx, (char *)VERDICT_REPLY_CODE, (char *)VERDICT_REPLY_STATUS,
                      (char *)VERDICT_REPLY_TEXT);
        return SMFIS_TEMPFAIL;
    }
    return SMFIS_CONTINUE;
}

/* check_alignment - a warning when the signature will not count for the From: domain */
void check_alignment(const Session &s, const std::string &id, const std::string &d)
{
    if (s.from.empty()) {
        halyx_log(LOG_WARNING, MILTER_LOG_NO_FROM, id.c_str(), d.c_str());
        metrics_alignment(metrics(), AlignmentWarning::NO_FROM);
    } else if (s.from.size() > 1) {
        halyx_log(LOG_WARNING, MILTER_LOG_MANY_FROM, id.c_str(), d.c_str(), (int)s.from.size());
        metrics_alignment(metrics(), AlignmentWarning::MANY_FROM);
    } else if (!aligned(d, s.from[0])) {
        halyx_log(LOG_WARNING, MILTER_LOG_MISALIGNED, id.c_str(), d.c_str(),
                  s.from[0].empty() ? "no domain" : s.from[0].c_str());
        metrics_alignment(metrics(), AlignmentWarning::MISALIGNED);
    }
}

/* whole_message - the kept message read back from its file; false with errno */
bool whole_message(const Session &s, std::string &out)
{
    struct stat st;
    if (fstat(s.fd, &st) != 0) return false;
    out.resize(st.st_size);
    for (size_t got = 0; got < out.size();) {
        ssize_t n = pread(s.fd, out.data() + got, out.size() - got, (off_t)got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return errno = n == 0 ? EIO : errno, false;
        got += n;
    }
    return true;
}

/* long_line - the message has a line longer than Postfix's SMTP client sends as it is */
bool long_line(const Session &s)
{
    size_t limit = s.config->line_length_limit;
    return limit > 0 && (s.head.longest() > limit || s.body.longest() > limit);
}

/* fold_long_lines - the lines longer than the limit broken as Postfix's SMTP client
 * breaks them, in the mail server's copy and in the file the handler signs; "" or why
 * that could not be done */
std::string fold_long_lines(SMFICTX *ctx, Session *s, const std::string &id)
{
    std::string whole;
    if (!whole_message(*s, whole))
        return std::string("cannot read the message back to fold its long lines: ") +
               strerror(errno);
    int limit = s->config->line_length_limit;
    Folding f = fold(whole, limit);
    whole = std::string();
    if (!f.name_too_long.empty()) {
        s->unsignable = "its header " + f.name_too_long.substr(0, 40) +
                        "...: has a name longer than Postfix's line limit (" +
                        std::to_string(limit) + "), which Postfix breaks after signing";
        return "";
    }
    /* each fold adds a space that relaxed canonicalization keeps: a signed field near the
     * signer's limit can pass it once folded; Postfix folds it all the same */
    for (const HeaderEdit &h : f.headers) {
        if (!signed_field(*s->config, h.name.c_str())) continue;
        std::string field = header_line(h.name, h.value);
        size_t n = dk_sign_canonical_length(field.data(), field.size());
        if (n > DK_SIGN_FIELD_MAX) {
            s->unsignable = "its " + h.name + ": header is " + std::to_string(n) +
                            " bytes unfolded once folded to Postfix's line limit, more than the "
                            "signer hashes whole (" +
                            std::to_string(DK_SIGN_FIELD_MAX) + ")";
            return "";
        }
    }
    for (HeaderEdit &h : f.headers) {
        if (smfi_chgheader(ctx, h.name.data(), h.index, h.value.data()) != MI_SUCCESS)
            return "the mail server refused the folded " + h.name + ": header";
        /* an old signature is removed by its text as the handler reads it: folded now */
        if (strcasecmp(h.name.c_str(), "DKIM-Signature") == 0 && h.index >= 1 &&
            (size_t)h.index <= s->signatures.size())
            s->signatures[h.index - 1] = header_line(h.name, h.value);
    }
    for (size_t at = f.body_at; f.body_folded && at < f.message.size(); at += BODY_PIECE) {
        size_t n = std::min(BODY_PIECE, f.message.size() - at);
        if (smfi_replacebody(ctx, (unsigned char *)f.message.data() + at, (int)n) != MI_SUCCESS)
            return "the mail server refused the folded body";
    }
    close(s->fd);
    s->fd = -1;
    s->kept.clear();
    append(s, f.message.data(), f.message.size());
    if (s->write_errno != 0 || message_file(s) < 0)
        return std::string("cannot spool the folded message for the handler: ") +
               strerror(s->write_errno != 0 ? s->write_errno : errno);
    halyx_log(LOG_INFO, MILTER_LOG_FOLDED, id.c_str(), f.lines, limit, f.first.c_str());
    metrics_long_line(metrics(), LongLine::FOLD);
    return "";
}

/* warn_long_line - the first line Postfix's SMTP client will break after signing */
void warn_long_line(const Session &s, const std::string &id)
{
    std::string whole;
    int limit = s.config->line_length_limit;
    if (!whole_message(s, whole)) return;
    Folding f = fold(whole, limit);
    halyx_log(LOG_WARNING, MILTER_LOG_LONG_LINE, id.c_str(), f.first.c_str(), (int)f.first_length,
              limit);
    metrics_long_line(metrics(), LongLine::WARN);
}

/* job_for - the worker's job for the session's message */
Job job_for(const Session &s, const std::string &id)
{
    return make_job(*s.config,
                    {s.sender, s.domain, s.rcpts, s.local, s.auth, s.client, s.from, id});
}

sfsistat on_eom(SMFICTX *ctx)
{
    Session *s = session(ctx);
    if (s == nullptr) return SMFIS_TEMPFAIL;
    std::string id = macro(ctx, "i");
    if (id.empty()) id = s->queue_id.empty() ? "NOQUEUE" : s->queue_id;
    sfsistat answer = SMFIS_CONTINUE;
    bool strict = s->config->strict;
    auto end = std::chrono::steady_clock::now();
    if (s->sender.empty()) {
        halyx_log(LOG_INFO, MILTER_LOG_NULL_SENDER, id.c_str());
        metrics_message(metrics(), Outcome::SKIPPED, Reason::NULL_SENDER, "", -1);
    } else if (s->not_host) {
        halyx_log(LOG_INFO, MILTER_LOG_NOT_HOST, id.c_str(), mh_from_domain(s->sender.c_str()));
        metrics_message(metrics(), Outcome::SKIPPED, Reason::NOT_HOST, "", -1);
    } else if (!s->unsignable.empty()) {
        answer = carry_out(ctx, *s, id, not_signed(id, s->unsignable, false, strict),
                           Reason::UNSIGNABLE);
    } else if (s->write_errno != 0 || message_file(s) < 0) {
        int err = s->write_errno != 0 ? s->write_errno : errno;
        std::string why = std::string("cannot spool the message for the handler: ") + strerror(err);
        answer = carry_out(ctx, *s, id, not_signed(id, why, true, strict), Reason::SPOOL);
    } else {
        const Config &c = *s->config;
        Job job = job_for(*s, id);
        Limits limits{(uint32_t)c.timeout, (uint32_t)c.workers};
        metrics().jobs_in_hand.fetch_add(1, std::memory_order_relaxed);
        Result r = helper_->run(job, s->fd, limits);
        /* a message the handler does not sign is not keyseal's to change (mail arriving for
         * this host keeps its sender's signature whole): it is folded only once the handler
         * signed it as it came, and then signed again as folded */
        std::string unfolded;
        if (r.verdict == Verdict::SIGNED && c.long_lines == LongLines::FOLD && long_line(*s)) {
            unfolded = fold_long_lines(ctx, s, id);
            if (unfolded.empty() && s->unsignable.empty()) r = helper_->run(job, s->fd, limits);
        }
        metrics().jobs_in_hand.fetch_sub(1, std::memory_order_relaxed);
        if (!s->unsignable.empty()) {
            answer = carry_out(ctx, *s, id, not_signed(id, s->unsignable, false, strict),
                               Reason::UNSIGNABLE);
        } else if (!unfolded.empty()) {
            /* a copy that could not be read back or spooled again, or an edit refused */
            answer = carry_out(ctx, *s, id, not_signed(id, unfolded, true, strict),
                               unfolded.rfind("cannot", 0) == 0 ? Reason::SPOOL
                                                                : Reason::SERVER_REFUSED);
        } else {
            Reason why = r.verdict == Verdict::SKIPPED                           ? Reason::POLICY
                         : r.verdict == Verdict::SIGNED && !r.signatures.empty() ? Reason::OK
                         : r.verdict == Verdict::FAILED && !r.retry              ? Reason::PERMANENT
                                                                    : Reason::TEMPORARY;
            if (why == Reason::OK && !r.reason.empty()) why = Reason::PARTIAL;
            int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now() - end)
                             .count();
            answer = carry_out(ctx, *s, id, decide(id, r, s->signatures, strict), why, ns);
            if (answer == SMFIS_CONTINUE && r.verdict == Verdict::SIGNED) {
                check_alignment(*s, id, job.domain);
                if (c.long_lines == LongLines::WARN && long_line(*s)) warn_long_line(*s, id);
            }
        }
    }
    s->reset_message();
    return answer;
}

sfsistat on_abort(SMFICTX *ctx)
{
    if (Session *s = session(ctx)) s->reset_message();
    return SMFIS_CONTINUE;
}

sfsistat on_close(SMFICTX *ctx)
{
    delete session(ctx);
    smfi_setpriv(ctx, nullptr);
    return SMFIS_CONTINUE;
}

} // namespace

void session_register(smfiDesc &desc, const Settings &settings, Helper &helper)
{
    settings_ = &settings;
    helper_ = &helper;
    desc.xxfi_name = (char *)"keyseal";
    desc.xxfi_version = SMFI_VERSION;
    desc.xxfi_flags = SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY;
    desc.xxfi_connect = on_connect;
    desc.xxfi_envfrom = on_envfrom;
    desc.xxfi_envrcpt = on_envrcpt;
    desc.xxfi_header = on_header;
    desc.xxfi_eoh = on_eoh;
    desc.xxfi_body = on_body;
    desc.xxfi_eom = on_eom;
    desc.xxfi_abort = on_abort;
    desc.xxfi_close = on_close;
    desc.xxfi_negotiate = on_negotiate;
}

int in_flight()
{
    return in_flight_.load();
}

} // namespace keyseal_milter
