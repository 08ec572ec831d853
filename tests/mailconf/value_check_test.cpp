/* Tests of the rules for panel values. */
#include "mailconf/value_check.h"

#include <gtest/gtest.h>

#include <string>

TEST(ValueCheck, PathComponents)
{
    for (const char *ok : {"example.com", "xn--bcher-kva.example", "info", "a.b-c_d", "...a"})
        EXPECT_EQ(check_path_component(ok), nullptr) << ok;
    std::string longest(VALUE_MAX_NAME, 'a');
    EXPECT_EQ(check_path_component(longest.c_str()), nullptr);
    for (const char *bad : {"", ".", "..", "../../etc", "/etc", "a/b", "a\nb", "a\tb", "a\x7f", "a\rb"})
        EXPECT_NE(check_path_component(bad), nullptr) << bad;
    EXPECT_NE(check_path_component(nullptr), nullptr);
    EXPECT_NE(check_path_component((longest + "a").c_str()), nullptr);
}

TEST(ValueCheck, LinesRecordsAddressesAndHashes)
{
    EXPECT_EQ(check_line_value("a:b c"), nullptr);
    EXPECT_NE(check_line_value("a\nb"), nullptr);
    EXPECT_NE(check_line_value("a\r"), nullptr);
    EXPECT_NE(check_line_value(std::string(VALUE_MAX_LINE + 1, 'x').c_str()), nullptr);
    EXPECT_EQ(check_record_value("example.com"), nullptr);
    EXPECT_NE(check_record_value("ex:ample"), nullptr);
    EXPECT_NE(check_record_value("ex\nample"), nullptr);

    EXPECT_EQ(check_forward_address("user@xn--bcher-kva.example"), nullptr);
    EXPECT_EQ(check_forward_address("first.last+tag@example.com"), nullptr);
    for (const char *bad : {"|/bin/sh", "/var/mail/x", "&user@example.com", "#note@example.com",
                            "user", "user@", "a@b@c", "user@example.com\n|/bin/sh", ""})
        EXPECT_NE(check_forward_address(bad), nullptr) << bad;

    for (const char *ok : {"$1$abcdefgh$0123456789abcdefghijkl", "ab01cdEF23.g/", "$y$j9T$a/b$c.d",
                           "$5$rounds=5000$salt$hash", "!", "*"})
        EXPECT_EQ(check_crypt_hash(ok), nullptr) << ok;
    for (const char *bad : {"$1$a:b", "abc\ndef", "abc def", "x;rm"})
        EXPECT_NE(check_crypt_hash(bad), nullptr) << bad;
}
