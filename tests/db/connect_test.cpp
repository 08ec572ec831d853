/* Tests of connect: the password file, the session set-up read back from the
 * server and the version rule.  Escaping is proven by the update tests. */
#include "db/connect.h"
#include "db/get.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

/* connect_reason - db_connect with the password file holding text; the
 * error text, or "ok" */
static std::string connect_reason(const std::string &text)
{
    char err[4097] = "untouched";
    write_file(DB_PASSWORD_FILE, text);
    MYSQL *conn = db_connect(err, sizeof(err));
    if (!conn)
        return err;
    mysql_close(conn);
    return "ok";
}

TEST(DbConnect, PasswordFileRules)
{
    REQUIRE_SANDBOX();
    const std::string pw = getenv("REBOX_DB_PASSWORD");
    for (const std::string &text : {pw + "\n", pw, pw + "\nsecond line\n"})
        EXPECT_EQ(connect_reason(text), "ok") << text;
    EXPECT_EQ(connect_reason(""), "Unable to read admin password file: the file is empty");
    EXPECT_EQ(connect_reason(pw + "x\n").rfind("Unable to connect to Vardo Database: Access denied "
                                              "for user 'admin'@'localhost'", 0), 0u);
    unlink(DB_PASSWORD_FILE);
    char err[10];
    EXPECT_EQ(db_connect(err, sizeof(err)), nullptr);
    EXPECT_STREQ(err, "Unable to"); /* cut to the buffer, terminated */

    /* A 150-character line is cut to 99: the server only knows those. */
    std::string long_pw;
    while (long_pw.size() < 150)
        long_pw += "abcdefghij";
    testdb_exec(("SET PASSWORD = PASSWORD('" + long_pw.substr(0, 99) + "')").c_str());
    write_file(DB_PASSWORD_FILE, long_pw + "\n");
    char reason[4097] = "";
    MYSQL *conn = db_connect(reason, sizeof(reason));
    ASSERT_NE(conn, nullptr) << reason;
    /* Give the fixture its password back through the cut-password login. */
    EXPECT_EQ(mysql_query(conn, ("SET PASSWORD = PASSWORD('" + pw + "')").c_str()), 0);
    mysql_close(conn);
}

TEST(DbSession, ForeignKeysOffCharacterSetFromMiscAndVersionRule)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    /* The server calls utf8 by its full name utf8mb3. */
    struct { const char *val; const char *charset; } cases[] = {
        {nullptr, "binary"}, {"'false'", "binary"}, {"''", "binary"},
        {"NULL", "binary"},  {"'true'", "utf8"},    {"'yes'", "utf8"},
    };
    for (const auto &c : cases) {
        if (c.val)
            testdb_exec((std::string("REPLACE INTO misc VALUES ('mysql41_compatible', ") + c.val + ")").c_str());
        char err[4097] = "";
        MYSQL *conn = db_open_session(err, sizeof(err));
        ASSERT_NE(conn, nullptr) << err;
        EXPECT_STREQ(get_query_value("SELECT @@foreign_key_checks", conn, 0), "0");
        EXPECT_EQ(std::string(get_query_value("SELECT @@character_set_client", conn, 0)).substr(0, strlen(c.charset)),
                  c.charset) << (c.val ? c.val : "no row");
        mysql_close(conn);
    }
    testdb_exec("DROP TABLE misc");
    char err[4097] = "";
    EXPECT_EQ(db_open_session(err, sizeof(err)), nullptr);
    EXPECT_STREQ(err, "DB error (mysql41 compatible query) 1146: Table 'vdo.misc' doesn't exist");

    for (const char *old : {"3.23.58", "4.0.27-standard"})
        EXPECT_EQ(db_version_sets_names(old), 0) << old;
    for (const char *recent : {"4.01", "4.1.22", "5.0.45", "10.11.19-MariaDB"})
        EXPECT_EQ(db_version_sets_names(recent), 1) << recent;
}
