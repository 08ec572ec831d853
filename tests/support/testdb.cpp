/* testdb - connect to the test database server, reset the schema, run
 * statements and read single values for the tests. */
#include "testdb.h"

#include <gtest/gtest.h>
#include <mysql.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

/* connect_admin - a new connection to "vdo" with multi-statements on; null
 * and a fatal failure when the server is not reachable */
MYSQL *connect_admin(std::string &error)
{
    const char *sock = getenv("REBOX_DB_SOCKET");
    const char *password = getenv("REBOX_DB_PASSWORD");
    if (!sock || !*sock || !getenv("REBOX_DB_DIR")) {
        error = "REBOX_DB_SOCKET or REBOX_DB_DIR is not set (the test must run in "
                "the sandbox with the db fixture)";
        return nullptr;
    }
    MYSQL *conn = mysql_init(nullptr);
    if (!conn) {
        error = "mysql_init failed";
        return nullptr;
    }
    if (!mysql_real_connect(conn, "localhost", "admin",
                            password && *password ? password : "sandbox-secret",
                            "vdo", 0, sock, CLIENT_MULTI_STATEMENTS)) {
        error = std::string("cannot connect to the test database at ") + sock +
                ": " + mysql_error(conn);
        mysql_close(conn);
        return nullptr;
    }
    return conn;
}

/* run_all - send sql and walk every result it produces; false and the
 * server's message on the first error */
bool run_all(MYSQL *conn, const char *sql, std::string &error)
{
    if (mysql_query(conn, sql) != 0) {
        error = mysql_error(conn);
        return false;
    }
    for (;;) {
        MYSQL_RES *res = mysql_store_result(conn);
        if (res)
            mysql_free_result(res);
        else if (mysql_field_count(conn) != 0) {
            error = mysql_error(conn);
            return false;
        }
        int next = mysql_next_result(conn);
        if (next < 0)
            return true;
        if (next > 0) {
            error = mysql_error(conn);
            return false;
        }
    }
}

std::string read_schema(void)
{
    std::ifstream in(REBOX_TEST_FIXTURES_DIR "/schema.sql");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

void testdb_exec(const char *sql)
{
    std::string error;
    MYSQL *conn = connect_admin(error);
    if (!conn)
        FAIL() << "testdb_exec: " << error;
    bool ok = run_all(conn, sql, error);
    mysql_close(conn);
    if (!ok)
        FAIL() << "testdb_exec: " << error << "\n  in: " << sql;
}

void testdb_reset(void)
{
    static const std::string schema = read_schema();
    if (schema.empty())
        FAIL() << "testdb_reset: cannot read " REBOX_TEST_FIXTURES_DIR "/schema.sql";

    std::string error;
    MYSQL *conn = connect_admin(error);
    if (!conn)
        FAIL() << "testdb_reset: " << error;

    /* Tables a test created of its own go too, so no test sees another's. */
    std::string drop;
    if (mysql_query(conn, "SELECT table_name FROM information_schema.tables "
                          "WHERE table_schema='vdo'") == 0) {
        if (MYSQL_RES *res = mysql_store_result(conn)) {
            while (MYSQL_ROW row = mysql_fetch_row(res))
                drop += std::string(drop.empty() ? "DROP TABLE IF EXISTS `" : ", `") +
                        row[0] + "`";
            mysql_free_result(res);
        }
    }
    bool ok = true;
    if (!drop.empty())
        ok = run_all(conn, drop.c_str(), error);
    if (ok)
        ok = run_all(conn, schema.c_str(), error);
    mysql_close(conn);
    if (!ok)
        FAIL() << "testdb_reset: " << error;
}

std::string testdb_query_value(const char *sql)
{
    std::string error, value;
    MYSQL *conn = connect_admin(error);
    if (!conn) {
        ADD_FAILURE() << "testdb_query_value: " << error;
        return value;
    }
    MYSQL_RES *res = nullptr;
    if (mysql_query(conn, sql) != 0 || !(res = mysql_store_result(conn))) {
        ADD_FAILURE() << "testdb_query_value: " << mysql_error(conn) << "\n  in: " << sql;
        mysql_close(conn);
        return value;
    }
    MYSQL_ROW row = mysql_fetch_row(res);
    if (row && row[0]) {
        unsigned long *lengths = mysql_fetch_lengths(res);
        value.assign(row[0], lengths[0]);
    }
    mysql_free_result(res);
    mysql_close(conn);
    return value;
}
