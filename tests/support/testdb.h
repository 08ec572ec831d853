/* testdb - the tests' own access to the throwaway database server.
 *
 * The server is started by the CTest fixture db_server_start (see
 * support/db-server) and reached through the client library's built-in
 * socket, where the sandbox puts it (REBOX_DB_SOCKET).  Each call logs in
 * as 'admin' with the sandbox's password (REBOX_DB_PASSWORD) to database
 * "vdo" on a connection of its own, so it works whatever a test does to
 * /etc/vdo/.vdo.shadow.  Call testdb_reset() first in every test that
 * touches the database (sessions read table misc as they open), then load
 * the rows the test needs.  Errors record a fatal gtest failure with the
 * server's message; wrap a call in ASSERT_NO_FATAL_FAILURE to stop there.
 */
#pragma once

/* testdb_reset - drop every table of "vdo" and create those of
 * fixtures/schema.sql again, empty */
void testdb_reset(void);

/* testdb_exec - run one or more SQL statements separated by ";" */
void testdb_exec(const char *sql);
