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
    /* name, is_component_installed, is_component_installed_noerr (-: fatal) */
    struct { const char *name; int installed, noerr; } cases[] = {
        {"drweb", 0, 0},   {"drweb-qmail", 1, 1}, {"empty", 1, 1}, {"suffix", 1, 0},
        {"o'brien", 1, 0}, {"twice", -1, 0},      {"nullv", -1, 0}, {"absent", -1, 0},
    };
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        if (c.installed >= 0) {
            EXPECT_EQ(is_component_installed(c.name), c.installed) << c.name;
        }
        EXPECT_EQ(is_component_installed_noerr(c.name), c.noerr) << c.name;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    char version[4] = "abc";
    get_component_version("drweb-qmail", version, sizeof(version));
    EXPECT_STREQ(version, "4.3");
    EXPECT_EXIT(is_component_installed("twice"), testing::ExitedWithCode(1),
                "Duplicate record in Components table for package twice");
    EXPECT_EXIT(is_component_installed("absent"), testing::ExitedWithCode(1),
                "Package 'absent' is not found in Components table");
    EXPECT_EXIT(is_component_installed("nullv"), testing::ExitedWithCode(1),
                "NULL version for package 'nullv' in database");
    testdb_exec("DROP TABLE Components");
    EXPECT_EXIT(is_component_installed("drweb"), testing::ExitedWithCode(1),
                "Error during mysql_query: Table 'vdo.Components' doesn't exist");
}
