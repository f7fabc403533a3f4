#include "mailhandler/mail_me.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(HeaderRead, NodesSeparatorAndWriteBack)
{
    const std::string big = "X-Long: " + std::string(69991, 'v') + "\n";
    const struct {
        const char *name;
        std::string input;
        std::vector<std::string> nodes;
        const char *line_end;
        std::string rest, written; // rest: what the stream held after the header block
    } cases[] = {
        // clang-format off
        {"crlf folded", "S: a\r\n\tb\r\n\r\nbody", {"S: a\r\n", "\tb\r\n"}, "\r\n", "body", "S: a\r\n\tb\r\n\r\n"},
        {"no empty line", "A: 1\n", {"A: 1\n"}, "\n", "", "A: 1\n\n"},
        {"empty input", "", {}, "\n", "", "\n"},
        {"final lone cr", "A: 1\r\n\r", {"A: 1\r\n"}, "\r\n", "", "A: 1\r\n\r\n"},
        {"70000-byte line", big + "\nb", {big.substr(0, 32765), big.substr(32765, 32765), big.substr(65530)},
         "\n", "b", big + "\n"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        mail_me me{};
        me_header_init(&me.headers);
        FILE *in = fmemopen((void *)c.input.data(), c.input.size(), "r");
        EXPECT_EQ(mail_header_read(in, &me), 0);
        char buf[64];
        EXPECT_EQ(std::string(buf, fread(buf, 1, sizeof(buf), in)), c.rest);
        fclose(in);
        std::vector<std::string> nodes;
        for (me_header *n = me.headers.first; n; n = n->next)
            nodes.push_back(n->text);
        EXPECT_EQ(nodes, c.nodes);
        EXPECT_STREQ(me.line_end, c.line_end);
        char *out = nullptr;
        size_t len = 0;
        FILE *f = open_memstream(&out, &len);
        EXPECT_EQ(mail_header_write(f, &me), 0);
        fclose(f);
        EXPECT_EQ(std::string(out, len), c.written);
        free(out);
        me_header_free(&me.headers);
    }
}
