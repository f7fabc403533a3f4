#include "util/halyx_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace
{

TEST(StringBuffer, RoomArithmetic)
{
    char *buf = nullptr;
    size_t room = 0;
    ASSERT_NE(string_init(&buf, &room), nullptr);
    EXPECT_EQ(room, 79u);

    ASSERT_NE(string_append_fmt(&buf, &room, "%s", std::string(200, 'a').c_str()), nullptr);
    EXPECT_EQ(room, 0u); // grew once by 121: 79 + 121 - 200
    EXPECT_EQ(strlen(buf), 200u);

    ASSERT_NE(string_append(&buf, &room, "b"), nullptr); // smallest growth is 80
    EXPECT_EQ(room, 79u);
    ASSERT_NE(string_reserve(&buf, &room, 50), nullptr); // fits: no growth
    EXPECT_EQ(room, 79u);
    ASSERT_NE(string_append_fmt(&buf, &room, "%d", 42), nullptr);
    EXPECT_EQ(std::string(buf), std::string(200, 'a') + "b42");
    free(buf);
}

std::vector<std::string> to_vector(char **a)
{
    std::vector<std::string> v;
    for (char **p = a; p && *p; p++)
        v.push_back(*p);
    return v;
}

TEST(StringArray, SplitKeepsTrailingEmptyToken)
{
    struct {
        const char *in;
        std::vector<std::string> out;
    } cases[] = {
        {"a,,b,", {"a", "b", ""}},  {"a,b", {"a", "b"}}, {",,a", {"a"}}, {"", {""}}, {",,,", {""}},
        {"a b;c", {"a", "b", "c"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        char **a = string_split(c.in, strchr(c.in, ';') ? " ;" : ",");
        EXPECT_EQ(to_vector(a), c.out);
        free_array(&a);
        EXPECT_EQ(a, nullptr);
    }
}

struct ParseCase {
    std::string line;
    int result;
    std::vector<std::string> sections; // checked when result > 0
};

std::string words(int n)
{
    std::string s;
    for (int i = 0; i < n; i++)
        s += (i ? " w" : "w") + std::to_string(i);
    return s;
}

TEST(LineParse, Sections)
{
    const ParseCase cases[] = {
        {"", 1, {""}},
        {"a  b", 3, {"a", "", "b"}},
        {"a ", 2, {"a", ""}},
        {"x (a b) [c d] \"e f\" y", 5, {"x", "(a b)", "[c d]", "\"e f\"", "y"}},
        {"a\tb;c,d=e\r\n", 2, {"a", "b;c,d=e\r\n"}},
        {") ] a b", 4, {")", "]", "a", "b"}}, // unbalanced closers stay at depth 0
        {"\"open a b", 1, {"\"open a b"}},    // unclosed quote swallows every blank
        {"(\"x) y", 1, {"(\"x) y"}},          // ')' inside quotes does not close
        {words(18), 18, {}},
        {words(19), -1, {}},
        {std::string(1030, 'z'), 1, {std::string(1024, 'z')}},
        {std::string(1024, 'z') + " a b", 1, {std::string(1024, 'z')}}, // blanks past 1024 ignored
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        line_sections ls;
        ASSERT_EQ(line_parse(&ls, c.line.c_str()), c.result);
        if (c.result < 0 || c.sections.empty()) continue;
        std::vector<std::string> got;
        for (int i = 0; i < ls.count; i++)
            got.push_back(get_section(&ls, i));
        EXPECT_EQ(got, c.sections);
        EXPECT_EQ(get_section(&ls, ls.count), nullptr);
    }
}

TEST(LineParse, SectionByPrefix)
{
    line_sections ls;
    line_parse(&ls, "DKIM-Signature: v=1; a=rsa-sha256; d=example.com; s=default;");
    EXPECT_STREQ(get_section(&ls, 0), "DKIM-Signature:");
    EXPECT_STREQ(get_section_by_prefix(&ls, "d="), "d=example.com;");
    EXPECT_STREQ(get_section_by_prefix(&ls, "s="), "s=default;");
    EXPECT_EQ(get_section_by_prefix(&ls, "D="), nullptr);
}

TEST(Trim, InPlace)
{
    struct {
        char *(*fn)(char *);
        const char *in, *out;
    } cases[] = {
        {halyx_trim, "  \tab \n", "ab"},
        {halyx_trim, " \r\n", ""},
        {halyx_rtrim, " a b \t\v\f\r\n", " a b"},
        {strip_str, "\t ab \t", "\t ab \t"},
        {strip_str, "  ab\r\n", "ab"},
        {strip_str, "  a b \r\n ", "a b"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        std::string buf = c.in;
        EXPECT_STREQ(c.fn(buf.data()), c.out);
    }
    char s[] = "x;;";
    EXPECT_STREQ(halyx_rtrim_symbol(s, ';'), "x");
}

TEST(Trim, Strlcpy)
{
    char dst[8] = "unset";
    EXPECT_EQ(strlcpy(dst, "abc", 0), 3u);
    EXPECT_STREQ(dst, "unset");
    EXPECT_EQ(strlcpy(dst, "abcdefghij", sizeof(dst)), 10u);
    EXPECT_STREQ(dst, "abcdefg");
    EXPECT_EQ(strlcpy(dst, "ab", sizeof(dst)), 2u);
    EXPECT_STREQ(dst, "ab");
}

} // namespace
