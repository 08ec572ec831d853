/* Tests of the name conversion against libidn and of the shell quoting,
 * checked by /bin/sh itself. */
#include "mailconf/idn.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>

using testing::ExitedWithCode;

static const std::string LONG_LABEL(64, 'a'); /* one byte over the label limit */

TEST(Idn, ConversionsErrorCodesAndMessages)
{
    /* Each conversion, and the code it leaves in idn_last_error (42: left
     * alone, by successes and by an address without "@"). */
    const struct {
        char *(*convert)(const char *);
        std::string in;
        const char *out;
        int code;
    } cases[] = {
        {idn_toascii, "example.com", "example.com", 42},
        {idn_toascii_safe, "пример.рф", "xn--e1afmkfd.xn--p1ai", 42},
        /* the local part is copied byte for byte, never converted */
        {idn_email_toascii, "Jörg.Müller+x@bücher.example", "Jörg.Müller+x@xn--bcher-kva.example", 42},
        {idn_email_toascii, "@bücher.example", "@xn--bcher-kva.example", 42},
        {idn_email_toascii, "no-at-sign.example", nullptr, 42},
        {idn_email_toascii, "user@" + LONG_LABEL + ".com", nullptr, 5},
        {idn_toascii, "a\xcd\xb8.com", nullptr, 1}, /* unassigned code point */
    };
    for (const auto &c : cases) {
        idn_last_error = 42;
        char *out = c.convert(c.in.c_str());
        EXPECT_STREQ(out, c.out) << c.in;
        EXPECT_EQ(idn_last_error, c.code) << c.in;
        free(out);
    }
    EXPECT_STREQ(idn_error_text(201), "Cannot allocate buffer");
    EXPECT_STREQ(idn_error_text(42), "Unknown error");
    EXPECT_STREQ(idn_error_text(-1), "Unknown error");

    EXPECT_EXIT(idn_toascii_safe((LONG_LABEL + ".org").c_str()), ExitedWithCode(1),
                "idn_toascii_safe\\(a+\\.org\\) failed: Invalid length");
}

TEST(ShellEscape, QuotingAndTheShellGivesEveryByteBack)
{
    EXPECT_EQ(shell_escape("a b"), "a\\ b");
    EXPECT_EQ(shell_escape("a\nb"), "a'\n'b");
    EXPECT_EQ(shell_escape(""), "");
    /* each byte alone and between letters, then all of them in one word,
     * where exactly the 19 special bytes and the newline are quoted */
    const std::string special = "\t \"#$&'()*;<>?[\\`|~";
    std::string all;
    for (int b = 1; b < 256; b++) {
        std::string one(1, static_cast<char>(b));
        all += one;
        EXPECT_EQ(shell_escape_table[b], b == '\n' ? 'n' : special.find(one) != std::string::npos ? '*' : '-') << b;
        for (const std::string &t : {one, "a" + one + "b"})
            EXPECT_EQ(run_command("printf '%s' " + shell_escape(t)).out, t) << "byte " << b;
    }
    EXPECT_EQ(run_command("printf '%s' " + shell_escape(all)).out, all);
    EXPECT_EQ(shell_escape(all).size(), all.size() + 19 + 2);
}
