/* testdb - the tests' own access to the throwaway database server.
 *
 * The server is started by the CTest fixture db_server_start (see
 * tests/support/db-server) and is reached through the client library's
 * built-in socket path (REBOX_DB_SOCKET), where the sandbox puts it for the
 * tests of db/, mailconf/, filters/ and restore/.  These helpers log in as 'admin' with the password
 * in REBOX_DB_PASSWORD (default "sandbox-secret") to database "vdo", each
 * call on a connection of its own, so they work whatever a test does to
 * /etc/vdo/.vdo.shadow.  They talk to the server directly; the code under
 * test still connects the way it does on a panel server.
 *
 * Usage: call testdb_reset() first in every test that touches the database
 * (the code's own sessions read table misc as they open, so they fail on a
 * database without tables), then load exactly the rows the test needs:
 *
 *     testdb_reset();
 *     testdb_exec("INSERT INTO domains (id, name) VALUES (7, 'example.com');"
 *                 "INSERT INTO DomainServices (dom_id, type) VALUES (7, 'mail')");
 *     EXPECT_EQ(testdb_query_value("SELECT status FROM domains WHERE id=7"), "0");
 *
 * Schema: tests/fixtures/schema.sql (all panel tables; ids are unsigned
 * numbers, flags are ENUM('false','true'), missing values are NULL).  A test
 * that needs a value the schema's types refuse (say a flag "yes") may ALTER
 * the column after testdb_reset(); the next reset recreates it.
 *
 * Errors: testdb_reset() and testdb_exec() record a fatal gtest failure
 * (FAIL) with the server's message and return; wrap a call in
 * ASSERT_NO_FATAL_FAILURE(...) to stop the test there.  testdb_query_value()
 * records a non-fatal failure and answers "".
 */
#ifndef REBOX_TESTS_SUPPORT_TESTDB_H
#define REBOX_TESTS_SUPPORT_TESTDB_H

#include <string>

/* testdb_reset - drop every table of database "vdo" and create the panel
 * tables of schema.sql again, empty */
void testdb_reset(void);

/* testdb_exec - run one or more SQL statements separated by ";" */
void testdb_exec(const char *sql);

/* testdb_query_value - the first column of the first row of a query's result;
 * the empty string when there is no row or the value is NULL (ask
 * "SELECT x IS NULL ..." to tell the two apart) */
std::string testdb_query_value(const char *sql);

#endif
