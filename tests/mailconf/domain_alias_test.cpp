/* Tests of the domain-alias lines in rcpthosts and virtualdomains. */
#include "mailconf/domain_alias.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>

TEST(DomainAlias, AddTwiceIdnRenameRemoveAndFailedAdd)
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

    /* rcpthosts cannot take the line: the alias is taken away again. */
    block_file(qmail_path("control/rcpthosts"));
    EXPECT_EXIT(add_domain_alias("example.com", "alias.net"), testing::ExitedWithCode(1),
                "Unable to add domain record alias to rcpthosts\\.");
    EXPECT_EQ(read_file(qmail_path("control/virtualdomains")), "example.com:42\nnew.net:42\n");
}
