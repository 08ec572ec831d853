/* testdb - reset the test database and run statements for the tests. */
#include "testdb.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>
#include <mysql.h>

#include <cstdlib>
#include <string>

/* run_all - sql over a new connection, every result walked; "" or the
 * server's message */
static std::string run_all(const char *sql)
{
    const char *sock = getenv("REBOX_DB_SOCKET"), *password = getenv("REBOX_DB_PASSWORD");
    if (!sock || !password || !getenv("REBOX_DB_DIR"))
        return "not in the sandbox with the db fixture";
    MYSQL *conn = mysql_init(nullptr);
    std::string error;
    if (!mysql_real_connect(conn, "localhost", "admin", password, "vdo", 0, sock, CLIENT_MULTI_STATEMENTS) ||
        mysql_query(conn, sql) != 0)
        error = mysql_error(conn);
    for (int next = 0; error.empty() && next == 0; next = mysql_next_result(conn)) {
        MYSQL_RES *res = mysql_store_result(conn);
        if (res)
            mysql_free_result(res);
        else if (mysql_field_count(conn) != 0)
            error = mysql_error(conn);
    }
    if (error.empty() && mysql_errno(conn) != 0)
        error = mysql_error(conn);
    mysql_close(conn);
    return error;
}

void testdb_exec(const char *sql)
{
    std::string error = run_all(sql);
    if (!error.empty())
        FAIL() << "testdb_exec: " << error << "\n  in: " << sql;
}

void testdb_reset(void)
{
    static const std::string schema = read_file(REBOX_TEST_FIXTURES_DIR "/schema.sql");
    if (schema.empty())
        FAIL() << "testdb_reset: cannot read schema.sql";
    /* Tables and views a test created of its own go too, so no test sees
     * another's. */
    std::string error = run_all("SET @v = (SELECT GROUP_CONCAT('`', table_name, '`') FROM "
                                "information_schema.views WHERE table_schema = 'vdo');"
                                "SET @s = IF(@v IS NULL, 'DO 0', CONCAT('DROP VIEW ', @v));"
                                "PREPARE s FROM @s; EXECUTE s; DEALLOCATE PREPARE s;"
                                "SET @t = (SELECT GROUP_CONCAT('`', table_name, '`') FROM "
                                "information_schema.tables WHERE table_schema = 'vdo' AND table_type = 'BASE TABLE');"
                                "SET @s = IF(@t IS NULL, 'DO 0', CONCAT('DROP TABLE ', @t));"
                                "PREPARE s FROM @s; EXECUTE s; DEALLOCATE PREPARE s");
    if (error.empty())
        error = run_all(schema.c_str());
    if (!error.empty())
        FAIL() << "testdb_reset: " << error;
}
