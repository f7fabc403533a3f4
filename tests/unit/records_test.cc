// The records between keyseal-milter, its helper and its workers: what goes in comes out,
// field for field, and nothing but one whole record decodes.
#include "milter/records.h"

#include <gtest/gtest.h>

namespace
{

using namespace keyseal_milter;

const Job FULL{"4F2A1B3C",
               "ann@example.com",
               "example.com",
               "dkimsel=default",
               {"bob@example.net"},
               false,
               "ann",
               "192.0.2.7",
               {"s1", "ed1"},
               {"From", "To"},
               {"From"}};

TEST(Records, JobsRoundTripFieldForField)
{
    const Job cases[] = {
        {},
        FULL,
        /* an empty word followed by what looks like a variable is still a recipient */
        {"Q1",
         "x@example.com",
         "example.com",
         "",
         {"", "PPP_INSIDE_SENDMAIL=1"},
         true,
         "",
         "",
         {},
         {},
         {}},
        /* bytes a separator-based encoding would split on */
        {std::string("a\0b", 3),
         "\n\r\t",
         "d",
         std::string(1, '\0'),
         {std::string(70000, 'r')},
         true,
         std::string("A\0B", 3),
         "\xff",
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
        {1, 0x0102030405060708, {5, 100}, true, encode(FULL)},
        {~0ULL, 1, {1, 1}, false, ""}, /* the job in its file: three descriptors */
        {7, 9, {30, 4}, true, std::string(JOB_INLINE_MAX, '\0')},
    };
    for (const Request &q : requests) {
        Request back;
        ASSERT_TRUE(decode(encode(q), back));
        EXPECT_EQ(back, q);
        EXPECT_EQ(request_fds(back), q.job_inline ? 2 : 3);
        EXPECT_LE(encode(q).size(), REQUEST_BYTES_MAX);
    }
    for (const Word &w : {Word{}, Word{Answer::FAILED, 0x1122334455667788, failed}}) {
        Word back{Answer::FAILED, 1, signed_};
        ASSERT_TRUE(decode(encode(w), back));
        EXPECT_EQ(back, w);
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
        {"local 2: a flag is 0 or 1",
         cat({"J", std::string(20, '\0'), std::string("\x02\0\0\0", 4), std::string(20, '\0')}),
         true},
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
    std::string request = encode(Request{1, 2, {5, 4}, true, "j"});
    std::string word = encode(Word{Answer::FAILED, 3, Result{}});
    const size_t INLINE = 1 + 8 + 8 + 4 + 4; /* the inline flag's place */
    Request q;
    Word w;
    const struct {
        const char *name;
        std::string bytes;
        bool request;
    } others[] = {
        {"no time at all is no limit", encode(Request{1, 2, {0, 4}, true, ""}), true},
        {"no worker at all", encode(Request{1, 2, {5, 0}, true, ""}), true},
        {"a job both inline and in a file", std::string(request).replace(INLINE, 1, "\0"), true},
        {"inline 2", std::string(request).replace(INLINE, 1, "\2"), true},
        {"trailing byte", cat({request, "x"}), true},
        {"a job read as a request", job, true},
        {"READY with more", "RR", false},
        {"FAILED without its result", word.substr(0, 9), false},
        {"FAILED with a trailing byte", cat({word, "x"}), false},
        {"no word", "", false},
        {"an unknown word", "D", false},
    };
    for (const auto &h : others) {
        SCOPED_TRACE(h.name);
        EXPECT_FALSE(h.request ? decode(h.bytes, q) : decode(h.bytes, w));
    }
}

} // namespace
