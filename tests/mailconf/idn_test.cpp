/* Tests of the name conversion: domains, addresses and URLs against libidn,
 * error texts and codes, and shell quoting checked by /bin/sh itself. */
#include "mailconf/idn.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <stdexcept>
#include <string>

namespace {

const std::string LONG_LABEL(64, 'a'); /* one byte over the label limit */

/* take - the converted text as a string value, freeing it; "(null)" for null */
std::string take(char *s)
{
    if (s == nullptr)
        return "(null)";
    std::string v(s);
    free(s);
    return v;
}

} // namespace

TEST(IdnDomain, ConvertsBothWaysAndKeepsTheLastFailure)
{
    const char *ascii = "example.com";
    char *copy = idn_toascii(ascii);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, ascii);
    EXPECT_STREQ(copy, "example.com");
    free(copy);

    EXPECT_EQ(take(idn_toascii("bücher.example")), "xn--bcher-kva.example");
    EXPECT_EQ(take(idn_toascii_safe("пример.рф")), "xn--e1afmkfd.xn--p1ai");
    EXPECT_EQ(take(idn_toutf8("xn--bcher-kva.example")), "bücher.example");
    EXPECT_EQ(take(idn_toutf8_safe("xn--e1afmkfd.xn--p1ai")), "пример.рф");
    EXPECT_EQ(idn_toascii_string("bücher.example"), "xn--bcher-kva.example");
    EXPECT_EQ(idn_toutf8_string("xn--bcher-kva.example"), "bücher.example");

    idn_last_error = 0;
    EXPECT_EQ(idn_toascii((LONG_LABEL + ".com").c_str()), nullptr);
    EXPECT_EQ(idn_last_error, 5);
    EXPECT_EQ(idn_toascii("a\xcd\xb8.com"), nullptr); /* unassigned code point */
    EXPECT_EQ(idn_last_error, 1);
    EXPECT_EQ(take(idn_toascii("ok.example")), "ok.example");
    EXPECT_EQ(idn_last_error, 1) << "a success must leave the code alone";
    /* ToUnicode cannot decode invalid UTF-8: the library gives no text */
    EXPECT_EQ(idn_toutf8("\xff.com"), nullptr);
    EXPECT_EQ(idn_last_error, 9);

    EXPECT_EXIT(idn_toascii_safe((LONG_LABEL + ".com").c_str()), testing::ExitedWithCode(1),
                "idn_toascii_safe\\(a+\\.com\\) failed: Invalid length");
    EXPECT_EXIT(idn_toutf8_safe("bad\xff.com"), testing::ExitedWithCode(1),
                "idn_toutf8_safe\\(bad.\\.com\\) failed: Iconv error");
    EXPECT_EXIT(idn_toascii_string((LONG_LABEL + ".org").c_str()), testing::ExitedWithCode(1),
                "idn_toascii_safe\\(a+\\.org\\) failed: Invalid length");
}

TEST(IdnDomain, ErrorTexts)
{
    const char *texts[] = {"Success", "Stringprep error", "Punycode error",
                           "Contains non-LDH characters", "Contains minus", "Invalid length",
                           "ACE prefix not found", "Verify error", "ACE prefix found",
                           "Iconv error"};
    for (int code = 0; code <= 9; code++)
        EXPECT_STREQ(idn_error_text(code), texts[code]) << code;
    EXPECT_STREQ(idn_error_text(201), "Cannot allocate buffer");
    for (int code : {42, 10, 200, 202, -1})
        EXPECT_STREQ(idn_error_text(code), "Unknown error") << code;
}

TEST(IdnEmail, ConvertsTheDomainOnly)
{
    /* the local part is copied byte for byte, never converted */
    EXPECT_EQ(take(idn_email_toascii("Jörg.Müller+x@bücher.example")),
              "Jörg.Müller+x@xn--bcher-kva.example");
    EXPECT_EQ(take(idn_email_toascii("@bücher.example")), "@xn--bcher-kva.example");
    EXPECT_EQ(take(idn_email_toascii_safe("info@пример.рф")), "info@xn--e1afmkfd.xn--p1ai");

    idn_last_error = 42;
    EXPECT_EQ(idn_email_toascii("no-at-sign.example"), nullptr);
    EXPECT_EQ(idn_last_error, 42);
    EXPECT_EQ(idn_email_toascii(("user@" + LONG_LABEL + ".com").c_str()), nullptr);
    EXPECT_EQ(idn_last_error, 5);

    EXPECT_EXIT(idn_email_toascii_safe(("bob@" + LONG_LABEL + ".com").c_str()),
                testing::ExitedWithCode(1),
                "idn_email_toascii_safe\\(bob@a+\\.com\\) failed: Invalid length");
    EXPECT_EXIT(
        {
            idn_last_error = 0;
            idn_email_toascii_safe("nobody");
        },
        testing::ExitedWithCode(1), "idn_email_toascii_safe\\(nobody\\) failed: Success");
}

TEST(IdnUrl, KeepsSchemeUserPortAndPath)
{
    EXPECT_STREQ(idn_url_toascii("http://user:pw@bücher.example:8080/p/ä?q=1#f"),
                 "http://user:pw@xn--bcher-kva.example:8080/p/ä?q=1#f");
    EXPECT_STREQ(idn_url_toascii("https://пример.рф"), "https://xn--e1afmkfd.xn--p1ai");
    EXPECT_STREQ(idn_url_toascii("ftp://anon@bücher.example/pub/"),
                 "ftp://anon@xn--bcher-kva.example/pub/");
    EXPECT_STREQ(idn_url_toascii("bücher.example/a/b"), "xn--bcher-kva.example/a/b");
    EXPECT_STREQ(idn_url_toascii("example.com:25"), "example.com:25");

    testing::internal::CaptureStderr();
    EXPECT_EQ(idn_url_toascii(""), nullptr);
    EXPECT_EQ(idn_url_toascii(("http://" + LONG_LABEL + ".com/x").c_str()), nullptr);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("regexec() failed: No match"), std::string::npos) << err;
    EXPECT_NE(err.find("idn_toascii() failed: Invalid length"), std::string::npos) << err;
}

TEST(IdnUrl, RefusesResultsLongerThanTheBuffer)
{
    /* "xn--bcher-kva.example" is 21 bytes: fill the path up to the limit */
    const std::string head = "http://bücher.example/";
    const size_t fixed = strlen("http://xn--bcher-kva.example/");
    std::string fits = head + std::string(4095 - fixed, 'p');
    const char *r = idn_url_toascii(fits.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(strlen(r), 4095u);

    testing::internal::CaptureStderr();
    EXPECT_EQ(idn_url_toascii((fits + "p").c_str()), nullptr);
    EXPECT_EQ(idn_url_toascii(("http://" + std::string(5000, 'h')).c_str()), nullptr);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("URL too long"), std::string::npos) << err;
}

TEST(ShellEscape, TableAndQuoting)
{
    const std::string escaped = "\t \"#$&'()*;<>?[\\`|~";
    for (int b = 0; b < 256; b++) {
        char expect = b == '\n' ? 'n' : escaped.find(static_cast<char>(b)) != std::string::npos ? '*' : '-';
        EXPECT_EQ(shell_escape_table[b], expect) << "byte " << b;
    }
    EXPECT_EQ(shell_escape("a b"), "a\\ b");
    EXPECT_EQ(shell_escape("a\nb"), "a'\n'b");
    EXPECT_EQ(shell_escape(""), "");
    EXPECT_EQ(shell_escape("ü!{}^=%"), "ü!{}^=%");

    EXPECT_NO_THROW(shell_check_plain(""));
    EXPECT_NO_THROW(shell_check_plain("user.name-1_2=3%{}ü"));
    for (const char *bad : {"a b", "x\ny", "$HOME", "~"}) {
        try {
            shell_check_plain(bad);
            ADD_FAILURE() << "no exception for " << bad;
        } catch (const std::runtime_error &e) {
            EXPECT_STREQ(e.what(), "Internal error: bad escape_chars value");
        }
    }
}

TEST(ShellEscape, ShellGivesEveryByteBack)
{
    /* each byte alone and between letters, then all bytes in one word */
    std::string all;
    for (int b = 1; b < 256; b++) {
        std::string text(1, static_cast<char>(b));
        all += text;
        for (const std::string &t : {text, "a" + text + "b"}) {
            CommandResult r = run_command("printf '%s' " + shell_escape(t));
            EXPECT_EQ(r.status, 0) << "byte " << b;
            EXPECT_EQ(r.out, t) << "byte " << b << " escaped as " << shell_escape(t);
        }
    }
    CommandResult r = run_command("printf '%s' " + shell_escape(all));
    EXPECT_EQ(r.out, all);
    /* the newline travels inside single quotes */
    EXPECT_EQ(shell_escape(all).size(), all.size() + 19 + 2);
}
