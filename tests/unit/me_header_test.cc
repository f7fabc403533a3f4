#include "mailhandler/mail_me.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

struct Parsed {
    mail_me me{};
    std::string rest; // what the stream held after the header block
    explicit Parsed(const std::string &input = "")
    {
        me_header_init(&me.headers);
        FILE *f = fmemopen((void *)input.data(), input.size(), "r");
        EXPECT_EQ(mail_header_read(f, &me), 0);
        char buf[64];
        rest.assign(buf, fread(buf, 1, sizeof(buf), f));
        fclose(f);
    }
    ~Parsed() { me_header_free(&me.headers); }
    std::vector<std::string> nodes() const
    {
        std::vector<std::string> v;
        for (me_header *n = me.headers.first; n; n = n->next)
            v.push_back(n->text);
        return v;
    }
    std::string written()
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

TEST(HeaderRead, NodesSeparatorAndWriteBack)
{
    const std::string big = "X-Long: " + std::string(69991, 'v') + "\n";
    const struct {
        const char *name;
        std::string input;
        std::vector<std::string> nodes;
        const char *line_end;
        std::string rest, written;
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
        Parsed p(c.input);
        EXPECT_EQ(p.nodes(), c.nodes);
        EXPECT_STREQ(p.me.line_end, c.line_end);
        EXPECT_EQ(p.rest, c.rest);
        EXPECT_EQ(p.written(), c.written);
    }
}

} // namespace
