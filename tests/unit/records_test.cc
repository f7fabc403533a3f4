// The records between keyseal-milter, its helper and its workers: what goes in comes out,
// field for field, and nothing but one whole record decodes.
#include "milter/records.h"

#include <gtest/gtest.h>

namespace
{

using namespace keyseal_milter;

const Job FULL{"4F2A1B3C",        "ann@example.com",   "example.com",
               "dkimsel=default", {"bob@example.net"}, {"SMTP_AUTHORIZED=ann"},
               {"s1", "ed1"},     {"From", "To"},      {"From"}};

TEST(Records, JobsRoundTripFieldForField)
{
    const Job cases[] = {
        {},
        FULL,
        /* an empty word followed by what looks like a variable is still a recipient */
        {"Q1", "x@example.com", "example.com", "", {"", "PPP_INSIDE_SENDMAIL=1"}, {}, {}, {}, {}},
        /* bytes a separator-based encoding would split on */
        {std::string("a\0b", 3),
         "\n\r\t",
         "d",
         std::string(1, '\0'),
         {std::string(70000, 'r')},
         {"A=\0B"},
         {"s"},
         {},
         {}},
    };
    for (const Job &job : cases) {
        Job back;
        ASSERT_TRUE(decode(encode(job), back));
        EXPECT_EQ(back, job);
    }
    Job many = FULL;
    many.to.assign(1000, std::string(250, 'x') + "@example.net");
    Job back;
    ASSERT_TRUE(decode(encode(many), back));
    EXPECT_EQ(back.to.size(), 1000u);
}

TEST(Records, ResultsRoundTrip)
{
    Result signed_;
    signed_.verdict = Verdict::SIGNED;
    signed_.cuts = {{2, "DKIM-Signature: d=example.com;\r\n\tb=x\r\n"}, {7, ""}};
    signed_.signatures = {"DKIM-Signature: a\n", "DKIM-Signature: b\n"};
    Result failed;
    failed.retry = true;
    failed.reason = "cannot get sender domain key from /etc/domainkeys/x/default";
    Result skipped;
    skipped.verdict = Verdict::SKIPPED;
    for (const Result &r : {signed_, failed, skipped}) {
        Result back;
        ASSERT_TRUE(decode(encode(r), back));
        EXPECT_EQ(back, r);
    }
    const Request requests[] = {
        {{5, 100}, true, encode(FULL)},
        {{1, 1}, false, ""}, /* the job in its file: three descriptors */
        {{30, 4}, true, std::string(JOB_INLINE_MAX, '\0')},
    };
    for (const Request &q : requests) {
        Request back;
        ASSERT_TRUE(decode(encode(q), back));
        EXPECT_EQ(back, q);
        EXPECT_EQ(request_fds(back), q.job_inline ? 2 : 3);
        EXPECT_LE(encode(q).size(), REQUEST_BYTES_MAX);
    }
    for (Answer a : {Answer::READY, Answer::DONE, Answer::LAST}) {
        Answer back = a == Answer::READY ? Answer::DONE : Answer::READY;
        ASSERT_TRUE(decode(encode(a), back));
        EXPECT_EQ(back, a);
    }
}

TEST(Records, ResultsComeBackFramedAndTheWaitIsBounded)
{
    std::string result = encode(Result{}), framed = frame(result), two = framed + frame("x");
    std::string_view record;
    ASSERT_TRUE(unframe(framed, record));
    EXPECT_EQ(record, result);
    ASSERT_TRUE(unframe(two, record)); /* a helper's word after a worker's: the first counts */
    EXPECT_EQ(record, result);
    for (size_t n = 0; n < framed.size(); n++)
        EXPECT_FALSE(unframe(std::string_view(framed).substr(0, n), record)) << "cut to " << n;
    const struct {
        uint32_t timeout;
        int ms;
    } waits[] = {{1, 11000}, {30, 40000}, {0xffffffff, INT32_MAX}};
    for (const auto &w : waits)
        EXPECT_EQ(answer_wait_ms(Limits{w.timeout, 1}), w.ms) << w.timeout;
}

/* cat - bytes joined (with += : GCC 12 sees false overlaps in chains of +) */
std::string cat(std::initializer_list<std::string> parts)
{
    std::string out;
    for (const auto &p : parts)
        out += p;
    return out;
}

TEST(Records, OnlyOneWholeRecordDecodes)
{
    std::string job = encode(FULL);
    Job j;
    for (size_t n = 0; n < job.size(); n++)
        EXPECT_FALSE(decode(job.substr(0, n), j)) << "truncated to " << n;
    std::string count_too_big = job;
    count_too_big[1] = '\xff', count_too_big[4] = '\x7f'; /* the queue id's length */
    Result r;
    std::string result = encode(Result{});
    const struct {
        const char *name;
        std::string bytes;
        bool job;
    } hostile[] = {
        {"trailing byte", cat({job, "x"}), true},
        {"a length past the end", count_too_big, true},
        {"a result read as a job", result, true},
        {"a job read as a result", job, false},
        {"a list count beyond the bytes left",
         cat({"J", std::string(16, '\0'), std::string("\xff\xff\xff\x0f", 4)}), true},
        {"verdict 0", cat({"R", std::string(16, '\0')}), false},
        {"verdict 4", cat({"R", std::string("\x04\0\0\0", 4), std::string(12, '\0')}), false},
        {"retry 2", cat({"R", std::string("\x01\0\0\0\x02\0\0\0", 8), std::string(12, '\0')}),
         false},
        {"empty", "", true},
    };
    for (const auto &h : hostile) {
        SCOPED_TRACE(h.name);
        EXPECT_FALSE(h.job ? decode(h.bytes, j) : decode(h.bytes, r));
    }
    std::string request = encode(Request{{5, 4}, true, "j"});
    Request q;
    const struct {
        const char *name;
        std::string bytes;
    } requests[] = {
        {"no time at all is no limit", encode(Request{{0, 4}, true, ""})},
        {"no worker at all", encode(Request{{5, 0}, true, ""})},
        {"a job both inline and in a file", encode(Request{{5, 4}, true, "j"}).replace(9, 1, "\0")},
        {"inline 2", std::string(request).replace(9, 1, "\2")},
        {"trailing byte", cat({request, "x"})},
        {"a job read as a request", job},
    };
    for (const auto &h : requests) {
        SCOPED_TRACE(h.name);
        EXPECT_FALSE(decode(h.bytes, q));
    }
    Answer a;
    for (const std::string &bad :
         {std::string(), std::string("J"), std::string("DD"), std::string(1, '\0')})
        EXPECT_FALSE(decode(bad, a)) << bad;
}

} // namespace
