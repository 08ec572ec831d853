/* Tests of the name conversion against libidn and of the shell quoting,
 * checked by /bin/sh itself. */
#include "mailconf/idn.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <stdexcept>
#include <string>

static const std::string LONG_LABEL(64, 'a'); /* one byte over the label limit */

/* take - the converted text as a string value, freed; "(null)" for null */
static std::string take(char *s)
{
    std::string v = s ? s : "(null)";
    free(s);
    return v;
}

TEST(Idn, DomainsAddressesAndErrorCodes)
{
    EXPECT_EQ(take(idn_toascii("example.com")), "example.com");
    EXPECT_EQ(take(idn_toascii_safe("пример.рф")), "xn--e1afmkfd.xn--p1ai");
    EXPECT_EQ(take(idn_toutf8_safe("xn--bcher-kva.example")), "bücher.example");
    EXPECT_EQ(idn_toascii_string("bücher.example"), "xn--bcher-kva.example");
    EXPECT_EQ(idn_toutf8_string("xn--e1afmkfd.xn--p1ai"), "пример.рф");
    /* the local part is copied byte for byte, never converted */
    EXPECT_EQ(take(idn_email_toascii("Jörg.Müller+x@bücher.example")),
              "Jörg.Müller+x@xn--bcher-kva.example");
    EXPECT_EQ(take(idn_email_toascii("@bücher.example")), "@xn--bcher-kva.example");

    idn_last_error = 42;
    EXPECT_EQ(idn_email_toascii("no-at-sign.example"), nullptr);
    EXPECT_EQ(idn_last_error, 42);
    EXPECT_EQ(idn_email_toascii(("user@" + LONG_LABEL + ".com").c_str()), nullptr);
    EXPECT_EQ(idn_last_error, 5);
    EXPECT_EQ(idn_toascii("a\xcd\xb8.com"), nullptr); /* unassigned code point */
    EXPECT_EQ(idn_last_error, 1);
    EXPECT_EQ(take(idn_toascii("ok.example")), "ok.example");
    EXPECT_EQ(idn_last_error, 1) << "a success leaves the code alone";
    EXPECT_EQ(idn_toutf8("\xff.com"), nullptr); /* no text from the library */
    EXPECT_EQ(idn_last_error, 9);

    const char *texts[] = {"Success", "Stringprep error", "Punycode error",
                           "Contains non-LDH characters", "Contains minus", "Invalid length",
                           "ACE prefix not found", "Verify error", "ACE prefix found",
                           "Iconv error"};
    for (int code = 0; code <= 9; code++)
        EXPECT_STREQ(idn_error_text(code), texts[code]);
    EXPECT_STREQ(idn_error_text(201), "Cannot allocate buffer");
    EXPECT_STREQ(idn_error_text(42), "Unknown error");
    EXPECT_STREQ(idn_error_text(-1), "Unknown error");

    EXPECT_EXIT(idn_toascii_string((LONG_LABEL + ".org").c_str()), testing::ExitedWithCode(1),
                "idn_toascii_safe\\(a+\\.org\\) failed: Invalid length");
    EXPECT_EXIT(idn_toutf8_safe("bad\xff.com"), testing::ExitedWithCode(1),
                "idn_toutf8_safe\\(bad.\\.com\\) failed: Iconv error");
    EXPECT_EXIT(idn_email_toascii_safe(("bob@" + LONG_LABEL + ".com").c_str()),
                testing::ExitedWithCode(1),
                "idn_email_toascii_safe\\(bob@a+\\.com\\) failed: Invalid length");
    EXPECT_EXIT((idn_last_error = 0, idn_email_toascii_safe("nobody")), testing::ExitedWithCode(1),
                "idn_email_toascii_safe\\(nobody\\) failed: Success");
}

TEST(Idn, UrlsKeepSchemeUserPortAndPathAndNeverOverflow)
{
    EXPECT_STREQ(idn_url_toascii("http://user:pw@bücher.example:8080/p/ä?q=1#f"),
                 "http://user:pw@xn--bcher-kva.example:8080/p/ä?q=1#f");
    EXPECT_STREQ(idn_url_toascii("ftp://anon@пример.рф/pub/"),
                 "ftp://anon@xn--e1afmkfd.xn--p1ai/pub/");
    EXPECT_STREQ(idn_url_toascii("bücher.example/a/b"), "xn--bcher-kva.example/a/b");

    /* a result of 4095 bytes fits the buffer; one more is refused */
    std::string fits = "http://bücher.example/" +
                       std::string(4095 - strlen("http://xn--bcher-kva.example/"), 'p');
    const char *r = idn_url_toascii(fits.c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(strlen(r), 4095u);

    testing::internal::CaptureStderr();
    EXPECT_EQ(idn_url_toascii((fits + "p").c_str()), nullptr);
    EXPECT_EQ(idn_url_toascii(("http://" + std::string(5000, 'h')).c_str()), nullptr);
    EXPECT_EQ(idn_url_toascii(""), nullptr);
    EXPECT_EQ(idn_url_toascii(("http://" + LONG_LABEL + ".com/x").c_str()), nullptr);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "idn_url_toascii(): URL too long, over 4095 bytes\n"
                   "idn_url_toascii(): URL too long, over 4095 bytes\n"
                   "regexec() failed: No match\n"
                   "idn_toascii() failed: Invalid length\n");
}

TEST(ShellEscape, TableQuotingAndTheShellGivesEveryByteBack)
{
    const std::string escaped = "\t \"#$&'()*;<>?[\\`|~";
    for (int b = 0; b < 256; b++)
        EXPECT_EQ(shell_escape_table[b],
                  b == '\n' ? 'n' : escaped.find(static_cast<char>(b)) != std::string::npos ? '*' : '-')
            << "byte " << b;
    EXPECT_EQ(shell_escape("a b"), "a\\ b");
    EXPECT_EQ(shell_escape("a\nb"), "a'\n'b");
    EXPECT_EQ(shell_escape(""), "");

    /* each byte alone and between letters, then all of them in one word */
    std::string all;
    for (int b = 1; b < 256; b++) {
        std::string one(1, static_cast<char>(b));
        all += one;
        for (const std::string &t : {one, "a" + one + "b"})
            EXPECT_EQ(run_command("printf '%s' " + shell_escape(t)).out, t) << "byte " << b;
    }
    EXPECT_EQ(run_command("printf '%s' " + shell_escape(all)).out, all);
    EXPECT_EQ(shell_escape(all).size(), all.size() + 19 + 2);

    EXPECT_NO_THROW(shell_check_plain(""));
    EXPECT_NO_THROW(shell_check_plain("user.name-1_2=3%{}!ü"));
    for (const char *bad : {"a b", "x\ny", "$HOME"}) {
        try {
            shell_check_plain(bad);
            ADD_FAILURE() << "no exception for " << bad;
        } catch (const std::runtime_error &e) {
            EXPECT_STREQ(e.what(), "Internal error: bad escape_chars value");
        }
    }
}
