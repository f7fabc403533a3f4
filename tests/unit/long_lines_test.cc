// Long lines: the longest line of a stream fed in pieces cut anywhere, and the folded
// message with the edits that make the mail server's copy the same.  That the breaks are
// Postfix's own is checked against Postfix in the lab (tests/postfix/test_long_lines.py).
#include "milter/long_lines.h"

#include <gtest/gtest.h>

using keyseal_milter::fold;
using keyseal_milter::LineMeter;

TEST(LongLines, TheLongestLineWhereverThePiecesAreCut)
{
    const struct {
        std::string text;
        size_t longest;
    } cases[] = {
        {"abc\r\n", 3},          {"abc\n", 3}, {"a\r\r\n", 2}, /* a CR alone is a character */
        {"ab\r\nabcde", 5},                                    /* a last line without its end */
        {"\r\n\r\nabcd\r\n", 4}, {"", 0},
    };
    for (const auto &c : cases)
        for (size_t piece = 1; piece <= c.text.size() + 1; piece++) {
            SCOPED_TRACE(c.text + " in pieces of " + std::to_string(piece));
            LineMeter m;
            for (size_t at = 0; at < c.text.size(); at += piece)
                m.feed(c.text.data() + at, std::min(piece, c.text.size() - at));
            EXPECT_EQ(m.longest(), c.longest);
        }
}

TEST(LongLines, FoldsLinesAndNamesTheHeaderEdits)
{
    const struct {
        std::string message, folded, first;
        int lines;
        std::vector<std::string> edits; /* NAME INDEX VALUE */
        std::string name_too_long;
    } cases[] = {
        // clang-format off
        {"A: 1\r\n\r\n12345\r\n", "A: 1\r\n\r\n12345\r\n", "", 0, {}, ""}, /* the limit itself */
        {"A: 1\r\n\r\n123456\r\n", "A: 1\r\n\r\n12345\r\n 6\r\n", "body line 1", 1, {}, ""},
        /* what is left fills one continuation line exactly: no empty one after it */
        {"A: 1\r\n\r\nx\r\n123456789\r\n", "A: 1\r\n\r\nx\r\n12345\r\n 6789\r\n", "body line 2", 1, {}, ""},
        {"A: 1\r\n\r\n1234567890", "A: 1\r\n\r\n12345\r\n 6789\r\n 0", "body line 1", 1, {}, ""},
        /* names counted in any letter case; a long continuation line of a field */
        {"Ab: 1\r\nAb: x\r\nab: 1\r\n\t2345678\r\n\r\nok\r\n",
         "Ab: 1\r\nAb: x\r\nab: 1\r\n\t2345\r\n 678\r\n\r\nok\r\n", "header ab:", 1,
         {"ab 3  1\n\t2345\n 678"}, ""},
        /* a name past the limit is broken inside: no header edit can say so */
        {"Abcdef: 1\r\n\r\nok\r\n", "Abcde\r\n f: 1\r\n\r\nok\r\n", "header Abcdef:", 1, {}, "Abcdef"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        auto f = fold(c.message, 5);
        EXPECT_EQ(f.message, c.folded);
        EXPECT_EQ(f.first, c.first);
        EXPECT_EQ(f.lines, c.lines);
        EXPECT_EQ(f.body_folded, c.edits.empty() && c.lines > 0 && c.name_too_long.empty());
        EXPECT_EQ(f.name_too_long, c.name_too_long);
        EXPECT_EQ(f.message.substr(f.body_at), c.folded.substr(c.folded.find("\r\n\r\n") + 4));
        std::vector<std::string> edits;
        for (const auto &h : f.headers)
            edits.push_back(h.name + " " + std::to_string(h.index) + " " + h.value);
        EXPECT_EQ(edits, c.edits);
    }
}
