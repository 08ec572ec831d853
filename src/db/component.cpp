/* component - the installed-component check over the Components table. */
#include "db/component.h"

#include "db/connect.h"
#include "runtime/report.h"

#include <mysql.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const size_t COMPONENT_BUF_SIZE = 4096;
static const size_t COMPONENT_ERR_SIZE = 4097;
static const char NOT_INSTALLED[] = "not_installed";

/* get_component_version - copy the recorded version of package name into
 * out; every failure ends the process.  The copy zero-fills out and always
 * leaves a terminator: a version of size bytes or more is cut to size - 1. */
void get_component_version(const char *name, char *out, size_t size)
{
    char query[COMPONENT_BUF_SIZE];
    MYSQL *conn = panel_db_open();

    if (conn == nullptr)
        report_plain(1, "Unable to connect to the Vardo database");
    char *escaped = db_escape(conn, name);
    snprintf(query, sizeof(query), "SELECT version FROM Components WHERE name = '%s'", escaped);
    free(escaped);

    if (mysql_query(conn, query) != 0)
        report_plain(1, "Error during mysql_query: %s", mysql_error(conn));
    MYSQL_RES *res = mysql_store_result(conn);
    if (res == nullptr)
        report_plain(1, "Error during mysql_store_result: %s", mysql_error(conn));
    my_ulonglong rows = mysql_num_rows(res);
    if (rows > 1)
        report_plain(1, "Duplicate record in Components table for package %s", name);
    if (rows == 0)
        report_plain(1, "Package '%s' is not found in Components table", name);
    MYSQL_ROW row = mysql_fetch_row(res);
    if (row == nullptr)
        report_plain(1, "Error during mysql_fetch_row: %s", mysql_error(conn));
    if (row[0] == nullptr)
        report_plain(1, "NULL version for package '%s' in database", name);
    if (size > 0) {
        strncpy(out, row[0], size - 1);
        out[size - 1] = '\0';
    }
    mysql_free_result(res);
    mysql_close(conn);
}

int is_component_installed(const char *name)
{
    char version[COMPONENT_BUF_SIZE];

    get_component_version(name, version, sizeof(version));
    return strcmp(version, NOT_INSTALLED) != 0;
}

/* is_component_installed_noerr - 1 installed, 0 not installed or unknown;
 * never reports.  The name goes into the query unescaped, so a name holding
 * a backslash or quote gets no query at all and the answer 0. */
int is_component_installed_noerr(const char *name)
{
    char query[COMPONENT_BUF_SIZE];
    MYSQL_RES *res;
    MYSQL_ROW row;
    char err[COMPONENT_ERR_SIZE];
    int installed = 0;

    if (name == nullptr || strpbrk(name, "\\\"'") != nullptr)
        return 0;
    /* The session is opened without panel_db_open, which would print the
     * reason of a failed connect: this variant stays silent. */
    MYSQL *conn = db_open_session(err, sizeof(err));
    if (conn == nullptr)
        return 0;
    snprintf(query, sizeof(query), "SELECT version FROM Components WHERE name = '%s'", name);
    if (mysql_query(conn, query) == 0 && (res = mysql_store_result(conn)) != nullptr) {
        if (mysql_num_rows(res) == 1 && (row = mysql_fetch_row(res)) != nullptr && row[0] != nullptr)
            installed = strncmp(row[0], NOT_INSTALLED, strlen(NOT_INSTALLED)) != 0;
        mysql_free_result(res);
    }
    mysql_close(conn);
    return installed;
}
