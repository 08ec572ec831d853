/* Tests of connect: the password file, the session set-up read back from the
 * server, the version rule and escaping. */
#include "db/connect.h"
#include "db/get.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

static std::string db_password(void)
{
    const char *p = getenv("REBOX_DB_PASSWORD");
    return p && *p ? p : "sandbox-secret";
}

/* connect_reason - db_connect with the password file holding text; the
 * error text, or "ok" */
static std::string connect_reason(const std::string &text, size_t err_size = 4097)
{
    char err[4097] = "untouched";
    write_file(DB_PASSWORD_FILE, text);
    MYSQL *conn = db_connect(err, err_size);
    if (!conn)
        return err;
    mysql_close(conn);
    return "ok";
}

TEST(DbConnect, PasswordFileRules)
{
    REQUIRE_SANDBOX();
    const std::string pw = db_password();
    EXPECT_EQ(connect_reason(pw + "\n"), "ok");
    EXPECT_EQ(connect_reason(pw), "ok");
    EXPECT_EQ(connect_reason(pw + "\nsecond line\n"), "ok");
    EXPECT_EQ(connect_reason("").rfind("Unable to read admin password file: ", 0), 0u);
    EXPECT_EQ(connect_reason(pw + "x\n").rfind("Unable to connect to Vardo Database: Access denied "
                                              "for user 'admin'@'localhost'", 0), 0u);
    unlink(DB_PASSWORD_FILE);
    char err[10];
    EXPECT_EQ(db_connect(err, sizeof(err)), nullptr);
    EXPECT_STREQ(err, "Unable to");    /* cut to the buffer, terminated */

    /* A 150-character line is cut to 99: the server only knows those. */
    std::string long_pw(150, 'p');
    for (size_t i = 0; i < long_pw.size(); i++)
        long_pw[i] = "abcdefghij"[i % 10];
    testdb_exec(("SET PASSWORD = PASSWORD('" + long_pw.substr(0, 99) + "')").c_str());
    write_file(DB_PASSWORD_FILE, long_pw + "\n");
    char reason[4097] = "";
    MYSQL *conn = db_connect(reason, sizeof(reason));
    EXPECT_NE(conn, nullptr) << reason;
    /* Give the fixture its password back through the cut-password login. */
    if (conn) {
        EXPECT_EQ(mysql_query(conn, ("SET PASSWORD = PASSWORD('" + pw + "')").c_str()), 0);
        mysql_close(conn);
    }
    EXPECT_EQ(testdb_query_value("SELECT 1"), "1");
}

TEST(DbConnect, PanelDbOpenWarnsWithTheReason)
{
    REQUIRE_SANDBOX();
    unlink(DB_PASSWORD_FILE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(panel_db_open(), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Unable to open admin password file: No such file or directory"),
              std::string::npos);
}

TEST(DbSession, ForeignKeysOffAndCharacterSetFromMisc)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    struct { const char *row; const char *charset; } cases[] = {
        {nullptr, "binary"},
        {"INSERT INTO misc VALUES ('mysql41_compatible', 'false')", "binary"},
        {"REPLACE INTO misc VALUES ('mysql41_compatible', '')", "binary"},
        {"REPLACE INTO misc VALUES ('mysql41_compatible', NULL)", "binary"},
        {"REPLACE INTO misc VALUES ('mysql41_compatible', 'true')", "utf8"},
        {"REPLACE INTO misc VALUES ('mysql41_compatible', 'yes')", "utf8"},
    };
    for (const auto &c : cases) {
        if (c.row)
            testdb_exec(c.row);
        char err[4097] = "";
        MYSQL *conn = db_open_session(err, sizeof(err));
        ASSERT_NE(conn, nullptr) << err;
        EXPECT_STREQ(get_query_value("SELECT @@foreign_key_checks", conn, 0), "0");
        /* The server calls utf8 by its full name utf8mb3. */
        EXPECT_EQ(std::string(get_query_value("SELECT @@character_set_client", conn, 0))
                      .substr(0, strlen(c.charset)), c.charset) << (c.row ? c.row : "no row");
        mysql_close(conn);
    }

    testdb_exec("DROP TABLE misc");
    char err[4097] = "";
    EXPECT_EQ(db_open_session(err, sizeof(err)), nullptr);
    EXPECT_STREQ(err, "DB error (mysql41 compatible query) 1146: Table 'vdo.misc' doesn't exist");
}

TEST(DbSession, VersionPrefixRule)
{
    EXPECT_EQ(db_version_sets_names("3.23.58"), 0);
    EXPECT_EQ(db_version_sets_names("4.0.27-standard"), 0);
    EXPECT_EQ(db_version_sets_names("4.01"), 1);
    EXPECT_EQ(db_version_sets_names("4.1.22"), 1);
    EXPECT_EQ(db_version_sets_names("5.0.45"), 1);
    EXPECT_EQ(db_version_sets_names("10.11.19-MariaDB"), 1);
}

TEST(DbConnect, Escape)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(db_escape(conn, nullptr), nullptr);
    char *empty = db_escape(conn, "");
    EXPECT_STREQ(empty, "");
    char *quoted = db_escape(conn, "it's a \"b\\c\"");
    EXPECT_STREQ(quoted, "it\\'s a \\\"b\\\\c\\\"");
    free(empty);
    free(quoted);
    mysql_close(conn);
}
