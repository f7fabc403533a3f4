#include "milter/records.h"

#include "milter/pool.h"

namespace keyseal_milter
{

namespace
{

constexpr char JOB_TAG = 'J', RESULT_TAG = 'R', LIMITS_TAG = 'L';

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

uint32_t answer_deadline(uint32_t timeout)
{
    return timeout + POOL_KILL_GRACE + 5;
}

Result retryable(const std::string &why)
{
    Result r;
    r.verdict = Verdict::FAILED;
    r.retry = true;
    r.reason = why;
    return r;
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

std::string encode(const Result &result)
{
    Writer w;
    w.out += RESULT_TAG;
    w.number((uint32_t)result.verdict);
    w.number(result.retry ? 1 : 0);
    w.text(result.reason);
    w.number((uint32_t)result.cuts.size());
    for (const Cut &c : result.cuts)
        w.number(c.place), w.text(c.text);
    w.list(result.signatures);
    return w.out;
}

bool decode(std::string_view in, Result &result)
{
    Reader r{in};
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
    return r.whole();
}

std::string encode(const Limits &limits)
{
    Writer w;
    w.out += LIMITS_TAG;
    w.number(limits.timeout), w.number(limits.workers);
    return w.out;
}

bool decode(std::string_view in, Limits &limits)
{
    Reader r{in};
    r.tag(LIMITS_TAG);
    limits.timeout = r.number(), limits.workers = r.number();
    return r.whole() && limits.timeout > 0 && limits.workers > 0;
}

} // namespace keyseal_milter
