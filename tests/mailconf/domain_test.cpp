/* Tests of the mail-domain records and directory. */
#include "mailconf/domain.h"
#include "mailconf/mailbox.h"
#include "mailconf/pop3.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

using testing::ExitedWithCode;

static std::string wildcard(const char *id, const char *ascii)
{
    return std::string("+") + id + ":popuser:7781:7781:" + mailnames_path(ascii) + ":::\n";
}

TEST(MailDomain, RecordsOnceInPlaceDisabledAndIdn)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "7 xn--bcher-kva.de"}));
    write_file(qmail_path("control/rcpthosts"), "other.org\n");
    add_enabled_mail_domain("example.com");
    add_mail_domain("example.com", 0);
    add_mail_domain("bücher.de", 0);
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              wildcard("7", "xn--bcher-kva.de") + wildcard("42", "example.com") + ".\n");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "other.org\nexample.com\nxn--bcher-kva.de\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com:42\nxn--bcher-kva.de:7\n");

    /* Disabled: record and directory stay, the two control lines go. */
    add_mail_domain("example.com", 1);
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              wildcard("42", "example.com") + wildcard("7", "xn--bcher-kva.de") + ".\n");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "other.org\nxn--bcher-kva.de\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "xn--bcher-kva.de:7\n");
    EXPECT_EQ(file_meta(mailnames_path("example.com")), "0700 7781 7781");
}

TEST(MailDomain, RemovalKeepsPrefixSharingNeighbourAndFailedAddsCleanUp)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "43 example.com.au"}));
    for (const char *d : {"example.com", "example.com.au"}) {
        add_mail_domain(d, 0);
        add_mailbox("info", d);
        add_pop3_password("info", d, "$1$h", 0, 0);
    }
    remove_mail_domain("example.com");
    std::string au = mailnames_path("example.com.au");
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              "=43-info:popuser:7781:7781:" + au + "/info:::\n" + wildcard("43", "example.com.au") + ".\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info:$1$h:popuser:" + au + "/info\n");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "example.com.au\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com.au:43\n");
    EXPECT_EQ(file_meta(mailnames_path("example.com")), "missing");
    EXPECT_NE(file_meta(au + "/info/Maildir"), "missing");

    /* rcpthosts cannot take the line: the domain is taken away again. */
    std::string assign = read_file(qmail_path("users/assign"));
    block_file(qmail_path("control/rcpthosts"));
    EXPECT_EXIT(add_mail_domain("example.com", 0), ExitedWithCode(1), "Unable to add domain record to rcpthosts\\.");
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
    EXPECT_EQ(file_meta(mailnames_path("example.com")), "missing");
    EXPECT_EXIT(add_mail_domain(std::string(70, 'a').c_str(), 0), ExitedWithCode(1), "idn_toascii\\(\\) failed: ");
    run_command("rm -rf '" + mailnames_path("") + "'"); /* the domain directory cannot be made */
    EXPECT_EXIT(add_mail_domain("example.com", 0), ExitedWithCode(255), "");
}

TEST(MailDomainHdv1, RemovalSetsTheDirectoryAside)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "43 nodir.org"}));
    add_mail_domain("example.com", 0);
    write_file(mailnames_path("example.com/keep"), "mail");
    remove_mail_domain("example.com");
    remove_mail_domain("nodir.org"); /* no directory: nothing to set aside */
    std::string left = run_command("ls -A '" + mailnames_path("") + "'").out;
    ASSERT_TRUE(std::regex_match(left, std::regex("__deleted[^/\n]{6}\n"))) << left;
    EXPECT_EQ(read_file(mailnames_path(left.substr(0, 15) + "/keep")), "mail");
}
