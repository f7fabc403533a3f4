#include "util/halyx_string.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(room, 0u); // grew once, by 121
    ASSERT_NE(string_append(&buf, &room, "b"), nullptr);
    EXPECT_EQ(room, 79u); // the smallest growth is 80
    ASSERT_NE(string_append_fmt(&buf, &room, "%d", 42), nullptr);
    EXPECT_EQ(std::string(buf), std::string(200, 'a') + "b42");
    free(buf);
}

TEST(StringArray, SplitKeepsTrailingEmptyToken)
{
    char **a = string_split("a,,b,", ",");
    EXPECT_EQ(std::vector<std::string>(a, a + 3), (std::vector<std::string>{"a", "b", ""}));
    EXPECT_EQ(a[3], nullptr);
    free_array(&a);
}

std::string words(int n)
{
    std::string s = "w";
    for (int i = 1; i < n; i++)
        s += " w";
    return s;
}

TEST(LineParse, Sections)
{
    const std::string z(1024, 'z');
    const struct {
        std::string line;
        int result;
        std::vector<std::string> sections; // checked when given
    } cases[] = {
        {"", 1, {""}},
        {"a  b", 3, {"a", "", "b"}},
        {"x (a b) [c d] \"e f\" y", 5, {"x", "(a b)", "[c d]", "\"e f\"", "y"}},
        {"a\tb;c,d=e\r\n", 2, {"a", "b;c,d=e\r\n"}},
        {") ] a", 3, {")", "]", "a"}},     // unbalanced closers stay at depth 0
        {"\"open a b", 1, {"\"open a b"}}, // an unclosed quote swallows every blank
        {"(\"x) y", 1, {"(\"x) y"}},       // no closing inside quotes
        {words(18), 18, {}},
        {words(19), -1, {}},
        {z + "zzz", 1, {z}},  // cut at 1024
        {z + " a b", 1, {z}}, // blanks past 1024 do not count
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 30));
        line_sections ls;
        ASSERT_EQ(line_parse(&ls, c.line.c_str()), c.result);
        if (c.sections.empty()) continue;
        std::vector<std::string> got(ls.sections, ls.sections + ls.count);
        EXPECT_EQ(got, c.sections);
        EXPECT_EQ(get_section(&ls, ls.count), nullptr);
    }
    line_sections ls;
    line_parse(&ls, "DKIM-Signature: v=1; d=example.com; s=default;");
    EXPECT_STREQ(get_section_by_prefix(&ls, "d="), "d=example.com;");
    EXPECT_EQ(get_section_by_prefix(&ls, "D="), nullptr);
}

TEST(Trim, InPlace)
{
    const struct {
        char *(*fn)(char *);
        const char *in, *out;
    } cases[] = {
        {halyx_trim, "  \tab \n", "ab"},
        {halyx_rtrim, " a \t\v\f\r\n", " a"},
        {strip_str, "\t ab \t", "\t ab \t"},
        {strip_str, "  ab\r\n", "ab"},
    };
    for (const auto &c : cases) {
        std::string buf = c.in;
        EXPECT_STREQ(c.fn(buf.data()), c.out) << c.in;
    }
    char dst[4] = "old";
    EXPECT_EQ(strlcpy(dst, "abcdef", 0), 6u);
    EXPECT_STREQ(dst, "old");
    EXPECT_EQ(strlcpy(dst, "abcdef", sizeof(dst)), 6u);
    EXPECT_STREQ(dst, "abc");
}

} // namespace
