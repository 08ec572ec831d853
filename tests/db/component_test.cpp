/* Tests of the installed-component check: versions, the quiet variant, and
 * the fatal records (none, duplicate, NULL version). */
#include "db/component.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

TEST(DbComponent, InstalledUnlessExactlyNotInstalled)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    testdb_exec("INSERT INTO Components (name, version) VALUES ('drweb', 'not_installed'),"
                " ('drweb-qmail', '4.33-1'), ('empty', ''), ('suffix', 'not_installed-1'),"
                " ('o''brien', '1.0'), ('twice', '1'), ('twice', '2'), ('nullv', NULL)");
    EXPECT_EQ(is_component_installed("drweb"), 0);
    EXPECT_EQ(is_component_installed("drweb-qmail"), 1);
    EXPECT_EQ(is_component_installed("empty"), 1);
    EXPECT_EQ(is_component_installed("suffix"), 1);
    EXPECT_EQ(is_component_installed("o'brien"), 1);

    testing::internal::CaptureStderr();
    EXPECT_EQ(is_component_installed_noerr("drweb"), 0);
    EXPECT_EQ(is_component_installed_noerr("drweb-qmail"), 1);
    EXPECT_EQ(is_component_installed_noerr("empty"), 1);
    EXPECT_EQ(is_component_installed_noerr("suffix"), 0);
    EXPECT_EQ(is_component_installed_noerr("o'brien"), 0);
    EXPECT_EQ(is_component_installed_noerr("twice"), 0);
    EXPECT_EQ(is_component_installed_noerr("nullv"), 0);
    EXPECT_EQ(is_component_installed_noerr("absent"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    char version[4] = "abc";
    get_component_version("drweb-qmail", version, sizeof(version));
    EXPECT_STREQ(version, "4.3");
}

TEST(DbComponent, MissingDuplicateOrNullRecordEndsTheProcess)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    testdb_exec("INSERT INTO Components (name, version) VALUES ('drweb', '1'), ('drweb', '2'),"
                " ('vdo-spamassassin', NULL)");
    EXPECT_EXIT(is_component_installed("drweb"), testing::ExitedWithCode(1),
                "Duplicate record in Components table for package drweb");
    EXPECT_EXIT(is_component_installed("drweb-qmail"), testing::ExitedWithCode(1),
                "Package 'drweb-qmail' is not found in Components table");
    EXPECT_EXIT(is_component_installed("vdo-spamassassin"), testing::ExitedWithCode(1),
                "NULL version for package 'vdo-spamassassin' in database");
    testdb_exec("DROP TABLE Components");
    EXPECT_EXIT(is_component_installed("drweb"), testing::ExitedWithCode(1),
                "Error during mysql_query: Table 'vdo.Components' doesn't exist");
}
