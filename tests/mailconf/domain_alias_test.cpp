/* Tests of the domain-alias lines in rcpthosts and virtualdomains. */
#include "mailconf/domain_alias.h"
#include "mailconf/writer_env.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::ExitedWithCode;

TEST(DomainAlias, AddTwiceIdnRenameAndRemove)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    write_file(qmail_path("control/virtualdomains"), "example.com:42\n");
    add_domain_alias("example.com", "alias.net");
    add_domain_alias("example.com", "bücher.example");
    add_domain_alias("example.com", "alias.net");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "xn--bcher-kva.example\nalias.net\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")),
              "example.com:42\nxn--bcher-kva.example:42\nalias.net:42\n");
    rename_domain_alias("example.com", "alias.net", "new.net");
    remove_domain_alias("example.com", "bücher.example");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "new.net\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com:42\nnew.net:42\n");
}

TEST(DomainAliasDeathTest, FatalPaths)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    EXPECT_EXIT(add_domain_alias("example.com", ""), ExitedWithCode(1),
                "empty domain or domain alias");
    EXPECT_EXIT(remove_domain_alias(nullptr, "a.net"), ExitedWithCode(1),
                "empty domain or domain alias");

    /* rcpthosts cannot take the line: the alias is taken away again. */
    write_file(qmail_path("control/virtualdomains"), "alias.net:42\n");
    unlink(qmail_path("control/rcpthosts").c_str());
    ASSERT_EQ(mkdir(qmail_path("control/rcpthosts").c_str(), 0755), 0);
    EXPECT_EXIT(add_domain_alias("example.com", "alias.net"), ExitedWithCode(1),
                "Unable to add domain record alias to rcpthosts\\.");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "");
    rmdir(qmail_path("control/rcpthosts").c_str());
    write_file(qmail_path("control/rcpthosts"), "");

    /* Without the main domain's identifier neither line is touched. */
    add_domain_alias("example.com", "alias.net");
    break_db_login();
    EXPECT_EXIT(add_domain_alias("example.com", "other.net"), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EXIT(remove_domain_alias("example.com", "alias.net"), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EQ(read_file(qmail_path("control/rcpthosts")), "alias.net\n");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "alias.net:42\n");
}
