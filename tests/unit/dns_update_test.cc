// The TSIG key file keyseal-admin signs its updates with: read as tsig-keygen writes it, with
// whatever comments an administrator adds, and refused whole when it is not a usable key.
#include "admin/dns_update.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace
{

using keyseal_admin::Problem;
using keyseal_admin::read_tsig_key;

TEST(DnsUpdate, ReadsTheKeyFileAsTsigKeygenWritesIt)
{
    const std::string secret = "k0//l8+/2uAx//4eH3f9GNlKLhPr4PkyRZsx/v3Sm7A=";
    const struct {
        const char *text;
        const char *name; /* read with this name and the secret; nullptr: refused with error */
        const char *error;
    } cases[] = {
        {"key \"keyseal-update\" {\n\talgorithm hmac-sha256;\n\tsecret \"SECRET\";\n};\n",
         "keyseal-update", nullptr},
        /* comments of each form, and on one line, outside the quotes only */
        {"# made for keyseal\n// by tsig-keygen\n/* the\n update key */ key \"Up.Example.\" "
         "{ algorithm HMAC-SHA256; // the default\n secret \"SECRET\"; # the secret\n};",
         "up.example", nullptr},
        {"key \"k\"{algorithm hmac-sha256;secret \"SECRET\";};", "k", nullptr},
        {"key \"k\" { algorithm hmac-sha256; secret \"SECRET; };\n", nullptr,
         "is not in the form key \"NAME\""},
        {"key \"k\" { algorithm hmac-sha256; # secret \"SECRET\";\n};\n", nullptr,
         "is not in the form key \"NAME\""},
        {"key \"k\" { algorithm hmac-sha256; /* secret \"SECRET\"; };\n", nullptr,
         "is not in the form key \"NAME\""},
        {"key \"k\" { algorithm hmac-md5; secret \"SECRET\"; };\n", nullptr,
         "is hmac-md5: keyseal signs its updates with hmac-sha256"},
        /* the name and the secret are quoted strings, not whatever word follows */
        {"key k { algorithm hmac-sha256; secret \"SECRET\"; };\n", nullptr,
         "is not in the form key \"NAME\""},
        {"key \"k\" { algorithm hmac-sha256; secret SECRET; };\n", nullptr,
         "is not in the form key \"NAME\""},
        {"", nullptr, "is not in the form key \"NAME\""},
    };
    std::string path = temp_dir() + "/update.key";
    for (const auto &c : cases) {
        std::string text = c.text;
        for (size_t at; (at = text.find("SECRET")) != std::string::npos;)
            text.replace(at, 6, secret);
        write_file(path, text);
        chmod(path.c_str(), 0600);
        if (c.name) {
            auto key = read_tsig_key(path);
            EXPECT_EQ(key.name, c.name) << c.text;
            EXPECT_EQ(key.algorithm, "hmac-sha256") << c.text;
            EXPECT_EQ(key.secret, secret) << c.text;
        } else {
            try {
                read_tsig_key(path);
                ADD_FAILURE() << "read: " << c.text;
            } catch (const Problem &e) {
                EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << c.text << "\n"
                                                                                  << e.what();
            }
        }
    }
    /* a secret others can read is one anyone on the host can change the zone with */
    write_file(path, "key \"k\" { algorithm hmac-sha256; secret \"" + secret + "\"; };\n");
    chmod(path.c_str(), 0640);
    EXPECT_THROW(read_tsig_key(path), Problem);
}

} // namespace
