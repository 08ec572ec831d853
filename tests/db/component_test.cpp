/* Tests of the installed-component check: versions and the fatal records
 * (none, duplicate, NULL version, no table). */
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
    for (const char *name : {"drweb-qmail", "empty", "suffix", "o'brien"})
        EXPECT_EQ(is_component_installed(name), 1) << name;
    EXPECT_EQ(is_component_installed("drweb"), 0);
    char version[4] = "abc";
    get_component_version("drweb-qmail", version, sizeof(version));
    EXPECT_STREQ(version, "4.3");
    const char *fatal[][2] = {{"twice", "Duplicate record in Components table for package twice"},
                              {"absent", "Package 'absent' is not found in Components table"},
                              {"nullv", "NULL version for package 'nullv' in database"}};
    for (auto &f : fatal)
        EXPECT_EXIT(is_component_installed(f[0]), testing::ExitedWithCode(1), f[1]);
    testdb_exec("DROP TABLE Components");
    EXPECT_EXIT(is_component_installed("drweb"), testing::ExitedWithCode(1),
                "Error during mysql_query: Table 'vdo.Components' doesn't exist");
}
