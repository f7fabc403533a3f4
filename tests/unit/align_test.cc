// The From: header's domains and relaxed alignment by organizational domain.
#include "milter/align.h"

#include <gtest/gtest.h>

namespace
{

using keyseal_milter::aligned;
using keyseal_milter::from_domains;

TEST(Align, FromHeaderDomains)
{
    const struct {
        const char *value;
        std::vector<std::string> domains;
    } cases[] = {
        {" Ann <ann@Example.COM>", {"example.com"}},
        {"ann@example.com.", {"example.com"}},
        {"ann@example.com (Ann at work@evil.example)", {"example.com"}},
        {"\"Mallory, m@evil.example\" <ann@example.com>", {"example.com"}},
        {"\"a\\\"b@evil.example\" <ann@example.com>", {"example.com"}},
        {"ann@example.com, bob@example.net", {"example.com", "example.net"}},
        {"Friends: ann@example.com, <bob@example.net>;", {"example.com", "example.net"}},
        {"ann", {""}},
        {"ann@exa mple.com", {""}},
        {"", {}},
        {"  ", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(from_domains(c.value), c.domains);
    }
}

TEST(Align, RelaxedByOrganizationalDomain)
{
    const struct {
        const char *d, *from;
        bool aligned;
    } cases[] = {
        {"example.com", "example.com", true},
        {"mail.example.com", "example.com", true},
        {"example.com", "news.example.com", true},
        {"example.co.uk", "shop.example.co.uk", true},
        {"example.co.uk", "other.co.uk", false},
        {"host.example.net", "example.com", false},
        {"customer.github.io", "other.github.io", false}, /* a private suffix */
        {"example.com", "", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.d) + " / " + c.from);
        EXPECT_EQ(aligned(c.d, c.from), c.aligned);
    }
}

} // namespace
