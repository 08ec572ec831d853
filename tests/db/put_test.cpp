/* Tests of the update functions: escaped values stored unchanged, null
 * values, deletes with and without a value, refused input. */
#include "db/connect.h"
#include "db/put.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

TEST(DbPut, MiscSettingsStoredUnchangedAndDeleted)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    const char *quoted = "it's \"quoted\" \\ here";
    EXPECT_EQ(put_param("motd", quoted, nullptr), 0);
    EXPECT_EQ(testdb_query_value("SELECT val FROM misc WHERE param='motd'"), quoted);
    EXPECT_EQ(put_param("motd", nullptr, nullptr), 0);
    EXPECT_EQ(testdb_query_value("SELECT val IS NULL FROM misc WHERE param='motd'"), "1");

    /* Longer than a 4096-byte statement buffer; a given connection stays open. */
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(put_param("big", std::string(6000, 'v').c_str(), conn), 0);
    EXPECT_EQ(testdb_query_value("SELECT length(val) FROM misc WHERE param='big'"), "6000");
    EXPECT_EQ(del_param("big", conn), 0);
    EXPECT_EQ(mysql_ping(conn), 0);
    mysql_close(conn);
    EXPECT_EQ(testdb_query_value("SELECT count(*) FROM misc"), "1");

    testdb_exec("ALTER TABLE misc MODIFY val INT");
    std::string err = stderr_of([] {
        EXPECT_EQ(put_param("motd", "x", nullptr), -1);
        EXPECT_EQ(del_param("p'", nullptr), -1);
    });
    EXPECT_TRUE(has(err, "Unable to put parameter motd into misc: Incorrect integer value: 'x'")) << err;
    EXPECT_TRUE(has(err, "del_param(): refusing a value holding a quote or backslash: p'")) << err;
}

TEST(DbPut, ParametersDomParamsAndStatus)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    EXPECT_EQ(put_Parameter("12", "bounce_mess", "Don't write here", nullptr), 0);
    EXPECT_EQ(put_Parameter("12", "bounce_mess", "Go away", nullptr), 0);
    EXPECT_EQ(put_Parameter("12", "catch_addr", "a@b.test", nullptr), 0);
    EXPECT_EQ(testdb_query_value("SELECT group_concat(value ORDER BY parameter) FROM Parameters"),
              "Go away,a@b.test");
    /* A delete with a value removes only a row holding it. */
    const char *const count = "SELECT count(*) FROM Parameters";
    EXPECT_EQ(del_Parameter("12", "bounce_mess", "Other text", nullptr), 0);
    EXPECT_EQ(testdb_query_value(count), "2");
    EXPECT_EQ(del_Parameter("12", "bounce_mess", "Go away", nullptr), 0);
    EXPECT_EQ(testdb_query_value(count), "1");
    EXPECT_EQ(del_Parameter("12", "catch_addr", nullptr, nullptr), 0);
    EXPECT_EQ(testdb_query_value(count), "0");

    EXPECT_EQ(put_dom_param("7", "note", "o'clock", nullptr), 0);
    EXPECT_EQ(testdb_query_value("SELECT val FROM dom_param WHERE dom_id=7 AND param='note'"), "o'clock");
    EXPECT_EQ(del_dom_param("7", "note", nullptr), 0);
    EXPECT_EQ(testdb_query_value("SELECT count(*) FROM dom_param"), "0");

    /* No value, no statement: the stored row stays as it was. */
    testdb_exec("INSERT INTO dom_param VALUES (7, 'keep', 'old'); INSERT INTO Parameters VALUES (1, 'keep', 'old')");
    std::string err = stderr_of([] {
        EXPECT_EQ(put_dom_param("7", "keep", nullptr, nullptr), -1);
        EXPECT_EQ(put_Parameter("1", "keep", nullptr, nullptr), -1);
    });
    EXPECT_TRUE(has(err, "put_dom_param(): no value given for parameter keep; nothing stored")) << err;
    EXPECT_TRUE(has(err, "put_Parameter(): no value given for parameter keep")) << err;
    EXPECT_EQ(testdb_query_value("SELECT concat(d.val, p.value) FROM dom_param d, Parameters p"), "oldold");

    /* The status update needs the caller's connection. */
    testdb_exec("INSERT INTO domains (id, name, status) VALUES (7, 'example.com', 0)");
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(put_dom_status("7", 16, conn) + put_dom_status("99", 2, conn), 0);
    mysql_close(conn);
    EXPECT_EQ(testdb_query_value("SELECT group_concat(status) FROM domains"), "16");
    EXPECT_TRUE(has(stderr_of([] { EXPECT_EQ(put_dom_status("7", 0, nullptr), -1); }),
                    "Unable to update status for domain with id=\"7\": no database connection"));
}
