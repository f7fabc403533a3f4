#include "milter/worker.h"

#include "dkim/dk_engine.h"
#include "mailhandler/mh_handler.h"
#include "milter/channel.h"
#include "util/file_utils.h"
#include "util/halyx_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

extern char *program_invocation_short_name;

namespace keyseal_milter
{

namespace
{

/* Collect - the engine's observer: what the milter must apply, and why a run failed */
struct Collect {
    Result result;
    int failure = 0;
};

void collect(void *data, int event, int number, const char *text)
{
    auto *c = static_cast<Collect *>(data);
    if (event == DK_EVENT_CUT)
        c->result.cuts.push_back({(uint32_t)number, text});
    else if (event == DK_EVENT_SIGNED)
        c->result.signatures.push_back(text);
    else if (event == DK_EVENT_FAILED && c->failure == 0)
        c->failure = number, c->result.reason = text;
}

/* names - the strings as a NULL-ended list of C strings, valid while v lives */
std::vector<const char *> names(const std::vector<std::string> &v)
{
    std::vector<const char *> out;
    for (const auto &s : v)
        out.push_back(s.c_str());
    out.push_back(nullptr);
    return out;
}

/* The keys a worker has parsed, by their exact text: parsing a key costs more than the
 * signature it makes (OpenSSL 3's decoders), and a worker signs with the same few keys
 * message after message.  The same bytes are the same key; a changed file gives other
 * bytes and a fresh parse.  A handful is kept, the oldest going first. */
struct ParsedKey {
    std::string text;
    EVP_PKEY *key;
};
std::vector<ParsedKey> parsed_keys; /* the worker's one thread alone uses it */
constexpr size_t PARSED_KEYS_MAX = 8;

/* parse_key - a PEM private key without a passphrase: PKCS#8 or PKCS#1 RSA, or NULL.  No
 * prompt is ever shown: an encrypted key is no key here. */
EVP_PKEY *parse_key(BIO *bio)
{
    char *name = nullptr, *header = nullptr;
    unsigned char *der = nullptr;
    long len = 0;
    if (PEM_read_bio(bio, &name, &header, &der, &len) != 1) return nullptr;
    EVP_PKEY *key = nullptr;
    const unsigned char *p = der;
    if (header[0] == '\0' && strcmp(name, "PRIVATE KEY") == 0) {
        PKCS8_PRIV_KEY_INFO *p8 = d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, len);
        if (p8 != nullptr) key = EVP_PKCS82PKEY(p8);
        PKCS8_PRIV_KEY_INFO_free(p8);
    } else if (header[0] == '\0' && strcmp(name, "RSA PRIVATE KEY") == 0) {
        key = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, len);
    }
    OPENSSL_cleanse(der, (size_t)len);
    OPENSSL_free(der);
    OPENSSL_free(name);
    OPENSSL_free(header);
    return key;
}

} // namespace
} // namespace keyseal_milter

/* PEM_read_bio_PrivateKey - the call libopendkim makes for a PEM key at every signature,
 * answered from the worker's parsed keys.  Only keyseal-milter's worker defines it; the
 * handler and keyseal-admin parse as the library does. */
extern "C" EVP_PKEY *PEM_read_bio_PrivateKey(BIO *bio, EVP_PKEY **x, pem_password_cb *, void *)
{
    using namespace keyseal_milter;
    char *data = nullptr;
    long len = BIO_method_type(bio) == BIO_TYPE_MEM ? BIO_get_mem_data(bio, &data) : 0;
    std::string text = len > 0 ? std::string(data, (size_t)len) : std::string();
    EVP_PKEY *key = nullptr;
    for (const ParsedKey &k : parsed_keys)
        if (!text.empty() && k.text == text && EVP_PKEY_up_ref(k.key) == 1) key = k.key;
    if (key == nullptr && (key = parse_key(bio)) != nullptr && !text.empty() &&
        EVP_PKEY_up_ref(key) == 1) {
        if (parsed_keys.size() == PARSED_KEYS_MAX) {
            OPENSSL_cleanse(parsed_keys.front().text.data(), parsed_keys.front().text.size());
            EVP_PKEY_free(parsed_keys.front().key);
            parsed_keys.erase(parsed_keys.begin());
        }
        parsed_keys.push_back({text, key});
    }
    OPENSSL_cleanse(text.data(), text.size());
    if (x != nullptr) {
        EVP_PKEY_free(*x);
        *x = key;
    }
    return key;
}

namespace keyseal_milter
{

Result serve(const Job &job, int message_fd)
{
    /* the handler's process as the chain would start it: its arguments, and an
     * environment of the policy variables and the trace id alone */
    std::vector<std::string> env = job.env;
    env.push_back(std::string(HALYX_LOG_TRACE_ENV "=") + job.queue_id);
    clearenv();
    ERR_clear_error();
    for (std::string &e : env)
        putenv(e.data());
    std::string context = job.context, from = job.from;
    std::vector<std::string> to = job.to;
    std::vector<char *> argv{(char *)"keyseal", context.data(), from.data()};
    for (std::string &r : to)
        argv.push_back(r.data());
    argv.push_back(nullptr);

    Collect c;
    mh_handler_context ctx;
    FILE *in = nullptr;
    int status = DK_ENGINE_FAILED;
    if (mh_handler_prepare(&ctx, (int)argv.size() - 1, argv.data()) != 0) {
        halyx_log(LOG_ERR, DK_LOG_INIT_FAILED);
        c.failure = DK_FAIL_SPOOL, c.result.reason = DK_LOG_INIT_FAILED;
    } else if (lseek(message_fd, 0, SEEK_SET) != 0 || (in = fdopen(message_fd, "r")) == nullptr) {
        c.failure = DK_FAIL_SPOOL,
        c.result.reason = std::string("cannot read the message: ") + strerror(errno);
    } else {
        std::vector<const char *> selectors = names(job.selectors), headers = names(job.headers),
                                  oversign = names(job.oversign);
        dk_engine_job ej = {};
        ej.selectors = job.selectors.empty() ? nullptr : selectors.data();
        ej.by_key_type = 1;
        ej.sign_headers = job.headers.empty() ? nullptr : headers.data();
        ej.oversign = oversign.data();
        ej.from_domain = job.domain.c_str();
        ej.context = ctx.context;
        ej.in = in;
        ej.observe = collect;
        ej.data = &c;
        status = dk_engine_run(&ej);
    }
    if (in != nullptr)
        fclose(in);
    else
        close(message_fd);
    clearenv(); /* before the strings it points into go */

    Result &r = c.result;
    if (status == DK_ENGINE_SIGNED && !r.signatures.empty()) {
        r.verdict = Verdict::SIGNED;
    } else if (status == DK_ENGINE_SKIPPED) {
        r.verdict = Verdict::SKIPPED;
    } else {
        r.verdict = Verdict::FAILED;
        r.retry = c.failure == 0 || dk_engine_retry_helps(c.failure);
        if (r.reason.empty()) r.reason = "the handler failed (exit " + std::to_string(status) + ")";
        r.cuts.clear(), r.signatures.clear();
    }
    return r;
}

void worker_main(int sock, int max_use)
{
    /* the handler's lines, under the handler's name: keyseal-admin report counts them */
    program_invocation_short_name = (char *)"keyseal";
    for (int served = 0; served < max_use; served++) {
        int fd[3];
        if (receive_fds(sock, nullptr, 0, fd, 3) < 0) _exit(0);
        std::string encoded;
        Job job;
        Result result;
        if (read_file(fd[0], encoded) != 0 || !decode(encoded, job)) {
            result.reason = "the job could not be read";
            close(fd[1]);
        } else {
            result = serve(job, fd[1]);
        }
        std::string out = encode(result);
        int written = pwrite_all(fd[2], out.data(), out.size(), 0);
        close(fd[0]), close(fd[2]);
        const char *answer = served + 1 < max_use ? "D" : "E";
        if (written != 0 || send(sock, answer, 1, MSG_NOSIGNAL) != 1) _exit(0);
    }
    /* nothing is buffered and no spool file is left: no exit handler has work to do, and
     * OpenSSL's teardown would cost more than the rest */
    _exit(0);
}

} // namespace keyseal_milter
