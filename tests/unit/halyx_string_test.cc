#include "util/halyx_string.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

TEST(LineParse, Sections)
{
    const std::string z(1024, 'z'), w18 = "w w w w w w w w w w w w w w w w w w";
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
        {w18, 18, {}},
        {w18 + " w", -1, {}},
        {z + "zzz", 1, {z}},  // cut at 1024
        {z + " a b", 1, {z}}, // blanks past 1024 do not count
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 30));
        line_sections ls;
        ASSERT_EQ(line_parse(&ls, c.line.c_str()), c.result);
        if (c.sections.empty()) continue;
        EXPECT_EQ(std::vector<std::string>(ls.sections, ls.sections + ls.count), c.sections);
    }
    line_sections ls;
    line_parse(&ls, "DKIM-Signature: v=1; d=example.com; s=default;");
    EXPECT_STREQ(get_section_by_prefix(&ls, "d="), "d=example.com;");
    EXPECT_EQ(get_section_by_prefix(&ls, "D="), nullptr);
}

} // namespace
