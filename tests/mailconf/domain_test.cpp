/* Tests of the mail-domain records and directory. */
#include "mailconf/domain.h"
#include "mailconf/mailbox.h"
#include "mailconf/pop3.h"
#include "mailconf/writer_env.h"
#include "support/sandbox.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")),
              "other.org\nexample.com\nxn--bcher-kva.de\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")),
              "example.com:42\nxn--bcher-kva.de:7\n");
    EXPECT_EQ(ownership(mailnames_path("xn--bcher-kva.de")), popuser_owned(0700));
    EXPECT_EQ(ownership(qmail_path("users/assign")), "0:0:600");

    /* Disabled: record and directory stay, the two control lines go. */
    add_mail_domain("example.com", 1);
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              wildcard("42", "example.com") + wildcard("7", "xn--bcher-kva.de") + ".\n");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "other.org\nxn--bcher-kva.de\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "xn--bcher-kva.de:7\n");
    EXPECT_EQ(ownership(mailnames_path("example.com")), popuser_owned(0700));
}

TEST(MailDomain, RemovalKeepsPrefixSharingNeighbour)
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
              "=43-info:popuser:7781:7781:" + au + "/info:::\n" +
                  wildcard("43", "example.com.au") + ".\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info:$1$h:popuser:" + au + "/info\n");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "example.com.au\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com.au:43\n");
    EXPECT_EQ(ownership(mailnames_path("example.com")), "");
    EXPECT_NE(ownership(au + "/info/Maildir"), "");
}

TEST(MailDomainHdv1, RemovalSetsTheDirectoryAside)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "43 nodir.org"}));
    add_mail_domain("example.com", 0);
    write_file(mailnames_path("example.com/keep"), "mail");
    remove_mail_domain("example.com");
    remove_mail_domain("nodir.org"); /* no directory: nothing to set aside */
    std::string deleted;
    DIR *dir = opendir(mailnames_path("").c_str());
    while (struct dirent *e = readdir(dir))
        if (std::string(e->d_name).rfind("__deleted", 0) == 0)
            deleted = e->d_name;
    closedir(dir);
    EXPECT_EQ(deleted.size(), 15u);
    EXPECT_EQ(read_file(mailnames_path(deleted + "/keep")), "mail");
    EXPECT_EQ(ownership(mailnames_path("example.com")), "");
}

TEST(MailDomainDeathTest, FatalPathsAndTheirCleanUp)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    EXPECT_EXIT(add_mail_domain("", 0), ExitedWithCode(1), "empty domain");
    EXPECT_EXIT(remove_mail_domain(nullptr), ExitedWithCode(1), "empty maildomain");
    EXPECT_EXIT(add_mail_domain(std::string(70, 'a').c_str(), 0), ExitedWithCode(1),
                "idn_toascii\\(\\) failed: ");

    /* rcpthosts cannot take the line: the domain is taken away again. */
    unlink(qmail_path("control/rcpthosts").c_str());
    ASSERT_EQ(mkdir(qmail_path("control/rcpthosts").c_str(), 0755), 0);
    EXPECT_EXIT(add_mail_domain("example.com", 0), ExitedWithCode(1),
                "Unable to add domain record to rcpthosts\\.");
    EXPECT_EQ(read_file(qmail_path("users/assign")), ".\n");
    EXPECT_EQ(ownership(mailnames_path("example.com")), "");
    rmdir(qmail_path("control/rcpthosts").c_str());
    write_file(qmail_path("control/rcpthosts"), "");

    rmdir(mailnames_path("").c_str()); /* the domain directory cannot be made */
    EXPECT_EXIT(add_mail_domain("example.com", 0), ExitedWithCode(255), "");
    ASSERT_EQ(mkdir(mailnames_path("").c_str(), 0755), 0);

    /* Without the database identifier nothing is written or removed. */
    add_mail_domain("example.com", 0);
    std::string assign = read_file(qmail_path("users/assign"));
    break_db_login();
    EXPECT_EXIT(add_mail_domain("example.com", 1), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EXIT(remove_mail_domain("example.com"), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "example.com\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com:42\n");
}
