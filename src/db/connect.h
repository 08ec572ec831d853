/* connect - connections to the panel database and helpers for building
 * queries.
 *
 * panel_db_open() opens a new, fully prepared connection per call (the
 * caller closes it with mysql_close); db_open_session() and db_connect() are
 * its two layers and report failures into a caller's buffer instead of
 * printing them.  db_escape() and xrealloc() help build statements, and
 * db_check_plain() guards values that are put between quotes unescaped.
 */
#pragma once

#include <mysql.h>
#include <stddef.h>

/* The file whose first line is the database administrator's password. */
#define DB_PASSWORD_FILE "/etc/vdo/.vdo.shadow"

MYSQL *panel_db_open(void);
/* db_open_own, db_close_own - conn, or (null given) a session of the
 * caller's own, null after reporting why and connect_msg; closed again
 * when it was the caller's own */
MYSQL *db_open_own(MYSQL *conn, const char *connect_msg);
void db_close_own(MYSQL *conn, MYSQL *given);
MYSQL *db_open_session(char *err, size_t err_size);
MYSQL *db_connect(char *err, size_t err_size);

/* db_version_sets_names - 1 when a server of this version text gets a
 * character set statement, 0 for the servers that predate them */
int db_version_sets_names(const char *version);

char *db_escape(MYSQL *conn, const char *text);
void *xrealloc(void *ptr, size_t size);

/* db_check_plain - 1 when value is null or free of backslash, double and
 * single quote; otherwise report that member refuses it (with exit_status)
 * and return 0 */
int db_check_plain(const char *member, const char *value, int exit_status);
