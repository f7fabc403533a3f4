#include "mailhandler/mail_me.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace
{

struct Parsed {
    mail_me me{};
    Parsed() { me_header_init(&me.headers); }
    ~Parsed() { me_header_free(&me.headers); }
    std::vector<std::string> nodes() const
    {
        std::vector<std::string> v;
        for (me_header *n = me.headers.first; n; n = n->next)
            v.push_back(n->text);
        return v;
    }
    std::string write()
    {
        char *buf = nullptr;
        size_t len = 0;
        FILE *f = open_memstream(&buf, &len);
        EXPECT_EQ(mail_header_write(f, &me), 0);
        fclose(f);
        std::string s(buf, len);
        free(buf);
        return s;
    }
};

void parse(Parsed &p, const std::string &input, std::string *rest = nullptr)
{
    FILE *f = fmemopen((void *)input.data(), input.size(), "r");
    ASSERT_EQ(mail_header_read(f, &p.me), 0);
    if (rest) {
        char buf[256];
        size_t n = fread(buf, 1, sizeof(buf), f);
        rest->assign(buf, n);
    }
    fclose(f);
}

const std::string EIGHT = "        ";

struct ReadCase {
    std::string name, input;
    std::vector<std::string> nodes;
    std::string line_end, fold_indent, body;
};

TEST(HeaderRead, NodesSeparatorAndIndent)
{
    std::string longline = "X-Long: " + std::string(70000 - 9, 'v') + "\n";
    const ReadCase cases[] = {
        {"crlf folded",
         "Subject: a\r\n\tb\r\n\r\nbody\r\n",
         {"Subject: a\r\n", "\tb\r\n"},
         "\r\n",
         "\t",
         "body\r\n"},
        {"lf", "A: 1\nB: 2\n\nbody", {"A: 1\n", "B: 2\n"}, "\n", EIGHT, "body"},
        {"space fold decides first",
         "A: 1\n  x\n\ty\n\n",
         {"A: 1\n", "  x\n", "\ty\n"},
         "\n",
         EIGHT,
         ""},
        {"no empty line", "A: 1\n", {"A: 1\n"}, "\n", EIGHT, ""},
        {"empty input", "", {}, "\n", EIGHT, ""},
        {"final lone CR", "A: 1\r\n\r", {"A: 1\r\n"}, "\r\n", EIGHT, ""},
        {"bare CR inside", "A: 1\r2\n\nb", {"A: 1\r2\n"}, "\n", EIGHT, "b"},
        {"long line split",
         longline + "\nb",
         {longline.substr(0, 32765), longline.substr(32765, 32765), longline.substr(65530)},
         "\n",
         EIGHT,
         "b"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Parsed p;
        std::string rest;
        parse(p, c.input, &rest);
        EXPECT_EQ(p.nodes(), c.nodes);
        EXPECT_STREQ(p.me.line_end, c.line_end.c_str());
        EXPECT_STREQ(p.me.fold_indent, c.fold_indent.c_str());
        EXPECT_EQ(rest, c.body.substr(0, 256));
        std::string header_block = c.input.substr(0, c.input.size() - c.body.size());
        if (c.name == "no empty line" || c.name == "empty input") header_block += "\n";
        if (c.name == "final lone CR") header_block = "A: 1\r\n\r\n";
        EXPECT_EQ(p.write(), header_block);
    }
}

TEST(HeaderList, CutRemovesContinuationLines)
{
    Parsed p;
    parse(p, "A: 1\n c1\n\tc2\nB: 2\n\n");
    me_header *next = me_header_cut(&p.me.headers, p.me.headers.first);
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next->text, "B: 2\n");
    EXPECT_EQ(me_header_cut(&p.me.headers, next), nullptr);
    EXPECT_TRUE(p.nodes().empty());
    ASSERT_EQ(me_header_add(&p.me.headers, 0, nullptr, "C: 3\n"), 0); // last link was reset
    EXPECT_EQ(p.nodes(), std::vector<std::string>{"C: 3\n"});
}

TEST(HeaderList, AddPlacement)
{
    struct {
        const char *name;
        char before;
        int ref; // -1: none, else index of the reference node in [x, y]
        std::vector<std::string> expected;
    } cases[] = {
        {"first", 1, -1, {"n", "x", "y"}},     {"append", 0, -1, {"x", "y", "n"}},
        {"before y", 1, 1, {"x", "n", "y"}},   {"after x", 0, 0, {"x", "n", "y"}},
        {"after last", 0, 1, {"x", "y", "n"}}, {"before first", 1, 0, {"n", "x", "y"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Parsed p;
        me_header_add(&p.me.headers, 0, nullptr, "x");
        me_header_add(&p.me.headers, 0, nullptr, "y");
        me_header *ref = c.ref < 0 ? nullptr : p.me.headers.first;
        if (c.ref == 1) ref = ref->next;
        ASSERT_EQ(me_header_add(&p.me.headers, c.before, ref, "n"), 0);
        me_header_add(&p.me.headers, 0, nullptr, "z"); // the last link must still be right
        auto expected = c.expected;
        expected.push_back("z");
        EXPECT_EQ(p.nodes(), expected);
    }
    Parsed empty;
    me_header_add(&empty.me.headers, 1, nullptr, "only");
    me_header_add(&empty.me.headers, 0, nullptr, "tail");
    EXPECT_EQ(empty.nodes(), (std::vector<std::string>{"only", "tail"}));
}

TEST(HeaderList, Lookup)
{
    Parsed p;
    parse(p, "subject: a\n b\nX-Tag: 1\r\nCc: c\n\td\n\n");
    char *value = nullptr;
    me_header *next = me_header_get(&p.me.headers, nullptr, "SUBJECT:", &value);
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "ab");
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next->text, "X-Tag: 1\r\n");
    free(value);

    EXPECT_EQ(me_header_get(&p.me.headers, next, "cc:", &value), nullptr); // last header
    EXPECT_STREQ(value, "cd");
    free(value);
    EXPECT_EQ(me_header_get(&p.me.headers, nullptr, "To:", &value), nullptr);
    EXPECT_EQ(value, nullptr);

    EXPECT_EQ(me_is_header_exists(&p.me.headers, "x-tag"), 1);
    EXPECT_EQ(me_is_header_exists(&p.me.headers, "b"), 0); // continuation lines do not count
    EXPECT_EQ(me_is_header_exists(&p.me.headers, ""), 0);
    EXPECT_EQ(me_is_header_with_data_exists(&p.me.headers, "X-Tag: 1\r\n"), 1);
    EXPECT_EQ(me_is_header_with_data_exists(&p.me.headers, "X-Tag: 1"), 0);

    me_header_cut_all_with_name(&p.me.headers, "CC");
    me_header_cut_all_with_name(&p.me.headers, "");
    EXPECT_EQ(p.nodes(), (std::vector<std::string>{"subject: a\n", " b\n", "X-Tag: 1\r\n"}));
}

} // namespace
