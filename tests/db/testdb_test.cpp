/* Tests of the test database helpers themselves: the schema loads, a reset
 * empties it, statements and values round-trip. */
#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

TEST(Testdb, ResetCreatesEmptyPanelTablesAndDropsStrayOnes)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    ASSERT_NO_FATAL_FAILURE(testdb_exec(
        "INSERT INTO domains (id, name) VALUES (7, 'example.com');"
        "CREATE TABLE stray (x INT)"));
    EXPECT_EQ(testdb_query_value("SELECT name FROM domains WHERE id=7"), "example.com");

    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    EXPECT_EQ(testdb_query_value("SELECT count(*) FROM domains"), "0");
    EXPECT_EQ(testdb_query_value(
                  "SELECT count(*) FROM information_schema.tables WHERE table_schema='vdo'"),
              "21");
    EXPECT_EQ(testdb_query_value("SELECT val FROM misc WHERE param='none'"), "");
}
