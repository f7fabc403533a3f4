#include "milter/records.h"

namespace keyseal_milter
{

namespace
{

constexpr char JOB_TAG = 'J', RESULT_TAG = 'R', REQUEST_TAG = 'Q';

struct Writer {
    std::string out;
    void number(uint32_t n)
    {
        for (int i = 0; i < 4; i++)
            out += (char)((n >> (8 * i)) & 0xff);
    }
    void text(std::string_view s)
    {
        number((uint32_t)s.size());
        out.append(s);
    }
    void wide(uint64_t n) { number((uint32_t)n), number((uint32_t)(n >> 32)); }
    void list(const std::vector<std::string> &v)
    {
        number((uint32_t)v.size());
        for (const auto &s : v)
            text(s);
    }
};

/* Reader - every read checks the bytes left; the first short read fails them all */
struct Reader {
    std::string_view in;
    bool ok = true;
    uint32_t number()
    {
        if (in.size() < 4) return ok = false, 0;
        uint32_t n = 0;
        for (int i = 0; i < 4; i++)
            n |= (uint32_t)(unsigned char)in[(size_t)i] << (8 * i);
        in.remove_prefix(4);
        return n;
    }
    uint64_t wide()
    {
        uint64_t low = number();
        return low | (uint64_t)number() << 32;
    }
    std::string text()
    {
        uint32_t n = number();
        if (!ok || in.size() < n) return ok = false, std::string();
        std::string s(in.substr(0, n));
        in.remove_prefix(n);
        return s;
    }
    /* count - a count of items of at least min_item bytes each: never more than fit */
    uint32_t count(size_t min_item)
    {
        uint32_t n = number();
        if (ok && n > in.size() / min_item) ok = false;
        return ok ? n : 0;
    }
    void list(std::vector<std::string> &v)
    {
        v.clear();
        for (uint32_t i = 0, n = count(4); ok && i < n; i++)
            v.push_back(text());
    }
    bool tag(char t)
    {
        if (in.empty() || in[0] != t) return ok = false;
        in.remove_prefix(1);
        return true;
    }
    bool whole() const { return ok && in.empty(); }
};

} // namespace

Result retryable(const std::string &why)
{
    Result r;
    r.verdict = Verdict::FAILED;
    r.retry = true;
    r.reason = why;
    return r;
}

Result no_worker_free(uint32_t timeout, uint32_t workers)
{
    return retryable("no worker was free within the time limit of " + std::to_string(timeout) +
                     " s (workers " + std::to_string(workers) + ")");
}

std::string encode(const Job &job)
{
    Writer w;
    w.out += JOB_TAG;
    w.text(job.queue_id), w.text(job.from), w.text(job.domain), w.text(job.context);
    w.list(job.to);
    w.number(job.local ? 1 : 0), w.text(job.auth), w.text(job.client);
    w.list(job.selectors), w.list(job.headers), w.list(job.oversign);
    return w.out;
}

bool decode(std::string_view in, Job &job)
{
    Reader r{in};
    r.tag(JOB_TAG);
    job.queue_id = r.text(), job.from = r.text(), job.domain = r.text(), job.context = r.text();
    r.list(job.to);
    uint32_t local = r.number();
    job.local = local == 1;
    job.auth = r.text(), job.client = r.text();
    r.list(job.selectors), r.list(job.headers), r.list(job.oversign);
    return r.whole() && local <= 1;
}

static void put(Writer &w, const Result &result)
{
    w.out += RESULT_TAG;
    w.number((uint32_t)result.verdict);
    w.number(result.retry ? 1 : 0);
    w.text(result.reason);
    w.number((uint32_t)result.cuts.size());
    for (const Cut &c : result.cuts)
        w.number(c.place), w.text(c.text);
    w.list(result.signatures);
}

static bool get(Reader &r, Result &result)
{
    r.tag(RESULT_TAG);
    uint32_t verdict = r.number(), retry = r.number();
    if (verdict < (uint32_t)Verdict::SIGNED || verdict > (uint32_t)Verdict::FAILED || retry > 1)
        return false;
    result.verdict = (Verdict)verdict;
    result.retry = retry == 1;
    result.reason = r.text();
    result.cuts.clear();
    for (uint32_t i = 0, n = r.count(8); r.ok && i < n; i++) {
        uint32_t place = r.number();
        result.cuts.push_back({place, r.text()});
    }
    r.list(result.signatures);
    return r.ok;
}

std::string encode(const Result &result)
{
    Writer w;
    put(w, result);
    return w.out;
}

bool decode(std::string_view in, Result &result)
{
    Reader r{in};
    return get(r, result) && r.whole();
}

std::string encode(const Request &request)
{
    Writer w;
    w.out += REQUEST_TAG;
    w.wide(request.seq), w.wide(request.sent_ns);
    w.number(request.limits.timeout), w.number(request.limits.workers);
    w.number(request.job_inline ? 1 : 0);
    w.text(request.job_inline ? std::string_view(request.job) : std::string_view());
    return w.out;
}

bool decode(std::string_view in, Request &request)
{
    Reader r{in};
    r.tag(REQUEST_TAG);
    request.seq = r.wide(), request.sent_ns = r.wide();
    request.limits.timeout = r.number(), request.limits.workers = r.number();
    uint32_t job_inline = r.number();
    request.job = r.text();
    request.job_inline = job_inline == 1;
    return r.whole() && request.limits.timeout > 0 && request.limits.workers > 0 &&
           job_inline <= 1 && (request.job_inline || request.job.empty());
}

int request_fds(const Request &request)
{
    return request.job_inline ? REQUEST_JOB : REQUEST_FDS_MAX;
}

int answer_wait_ms(const Limits &limits)
{
    uint64_t ms = ((uint64_t)limits.timeout + KILL_GRACE + 5) * 1000;
    return ms > (uint64_t)INT32_MAX ? INT32_MAX : (int)ms;
}

std::string encode(const Word &word)
{
    Writer w;
    w.out += (char)word.answer;
    if (word.answer == Answer::FAILED) w.wide(word.seq), put(w, word.result);
    return w.out;
}

bool decode(std::string_view in, Word &word)
{
    Reader r{in};
    if (r.tag((char)Answer::READY)) {
        word = Word{};
        return r.whole();
    }
    r = Reader{in};
    r.tag((char)Answer::FAILED);
    word.answer = Answer::FAILED;
    word.seq = r.wide();
    return get(r, word.result) && r.whole();
}

std::string frame(const std::string &record)
{
    Writer w;
    w.text(record);
    return w.out;
}

bool unframe(std::string_view in, std::string_view &record)
{
    Reader r{in};
    uint32_t n = r.number();
    if (!r.ok || r.in.size() < n) return false;
    record = r.in.substr(0, n);
    return true;
}

} // namespace keyseal_milter
