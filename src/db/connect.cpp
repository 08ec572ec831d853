/* connect - opening and preparing connections to the panel database, and the
 * small helpers for building queries.
 *
 * Every connection logs in as "admin" to database "vdo" on the local server
 * with the password read from DB_PASSWORD_FILE at each connect.  It goes to
 * the client library's built-in socket, and nothing of the caller's decides
 * where it connects or what the library loads: main() gave the process an
 * environment of its own (runtime/process_start), so the library finds none
 * of its socket, port, password, plugin or plugin-directory variables, and
 * it reads no option file, since no mysql_options() call here asks it to.
 * The session then gets foreign-key checks off and, on servers that know
 * character sets, "SET NAMES utf8" or "SET NAMES binary" as the panel
 * setting mysql41_compatible asks.
 *
 * Error texts are written into the caller's buffer with snprintf: a message
 * longer than the buffer is cut to it and always terminated (a zero-sized
 * buffer receives nothing).  The password itself never appears in them.
 */
#include "db/connect.h"

#include "runtime/report.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const size_t DB_PASSWORD_SIZE = 100;
static const size_t DB_ERR_SIZE = 4097;

/* set_err - format a reason into the caller's buffer, cut to fit */
__attribute__((format(printf, 3, 4)))
static void set_err(char *err, size_t err_size, const char *format, ...)
{
    va_list ap;

    if (err == nullptr || err_size == 0)
        return;
    va_start(ap, format);
    vsnprintf(err, err_size, format, ap);
    va_end(ap);
}

/* set_db_err - the "DB error" text of a session set-up stage */
static void set_db_err(char *err, size_t err_size, MYSQL *conn, const char *stage)
{
    unsigned int code = mysql_errno(conn);

    if (code != 0)
        set_err(err, err_size, "DB error (%s) %u: %s", stage, code, mysql_error(conn));
    else
        set_err(err, err_size, "DB error (%s): unknown error", stage);
}

MYSQL *db_connect(char *err, size_t err_size)
{
    char password[DB_PASSWORD_SIZE];
    FILE *fp = fopen(DB_PASSWORD_FILE, "r");

    if (fp == nullptr) {
        set_err(err, err_size, "Unable to open admin password file: %s", strerror(errno));
        return nullptr;
    }
    if (fgets(password, sizeof(password), fp) == nullptr) {
        /* At the end of an empty file errno holds no reason of this read. */
        set_err(err, err_size, "Unable to read admin password file: %s",
                ferror(fp) ? strerror(errno) : "the file is empty");
        fclose(fp);
        return nullptr;
    }
    fclose(fp);
    size_t len = strlen(password);
    if (len > 0 && password[len - 1] == '\n')
        password[len - 1] = '\0';

    MYSQL *conn = mysql_init(nullptr);
    if (conn == nullptr) {
        set_err(err, err_size, "Unable to initialize MySQL connection structure: %s",
                strerror(ENOMEM));
        errno = ENOMEM;
        return nullptr;
    }
    if (mysql_real_connect(conn, "localhost", "admin", password, "vdo", 0, nullptr, 0) == nullptr) {
        set_err(err, err_size, "Unable to connect to Vardo Database: %s", mysql_error(conn));
        mysql_close(conn);
        return nullptr;
    }
    return conn;
}

int db_version_sets_names(const char *version)
{
    return strncmp(version, "3.", 2) != 0 && strncmp(version, "4.0.", 4) != 0;
}

/* choose_names - the character set statement the panel setting asks for */
static const char *choose_names(MYSQL *conn)
{
    const char *names = "SET NAMES binary";
    MYSQL_RES *res = mysql_store_result(conn);

    if (res != nullptr) {
        MYSQL_ROW row = mysql_fetch_row(res);
        if (row != nullptr && row[0] != nullptr && row[0][0] != '\0' && strcmp(row[0], "false") != 0)
            names = "SET NAMES utf8";
        mysql_free_result(res);
    }
    return names;
}

/* fail_session - record the stage's error, close the connection, null */
static MYSQL *fail_session(MYSQL *conn, MYSQL_RES *res, char *err, size_t err_size,
                           const char *stage)
{
    set_db_err(err, err_size, conn, stage);
    if (res != nullptr)
        mysql_free_result(res);
    mysql_close(conn);
    return nullptr;
}

MYSQL *db_open_session(char *err, size_t err_size)
{
    static const char fk_query[] = "set foreign_key_checks=0";
    static const char version_query[] = "SHOW VARIABLES LIKE 'version'";
    static const char misc_query[] = "SELECT val FROM misc WHERE param='mysql41_compatible'";
    MYSQL *conn = db_connect(err, err_size);

    if (conn == nullptr)
        return nullptr;

    mysql_real_query(conn, fk_query, strlen(fk_query));

    if (mysql_real_query(conn, version_query, strlen(version_query)) != 0)
        return fail_session(conn, nullptr, err, err_size, "query version");
    MYSQL_RES *res = mysql_store_result(conn);
    if (res == nullptr)
        return fail_session(conn, nullptr, err, err_size, "store query result");
    MYSQL_ROW row = mysql_fetch_row(res);
    if (row == nullptr)
        return fail_session(conn, res, err, err_size, "fetch version row");
    if (mysql_num_fields(res) < 2 || row[1] == nullptr)
        return fail_session(conn, res, err, err_size, "empty version result");
    int sets_names = db_version_sets_names(row[1]);
    mysql_free_result(res);
    if (!sets_names)
        return conn;

    if (mysql_real_query(conn, misc_query, strlen(misc_query)) != 0)
        return fail_session(conn, nullptr, err, err_size, "mysql41 compatible query");
    const char *names = choose_names(conn);
    if (mysql_real_query(conn, names, strlen(names)) != 0)
        return fail_session(conn, nullptr, err, err_size, "set names query");
    return conn;
}

MYSQL *panel_db_open(void)
{
    char err[DB_ERR_SIZE] = "";
    MYSQL *conn = db_open_session(err, sizeof(err));

    if (conn == nullptr)
        report_plain(0, "%s", err);
    return conn;
}

MYSQL *db_open_own(MYSQL *conn, const char *connect_msg)
{
    MYSQL *own = conn != nullptr ? conn : panel_db_open();

    if (own == nullptr)
        report_plain(0, "%s", connect_msg);
    return own;
}

void db_close_own(MYSQL *conn, MYSQL *given)
{
    if (given == nullptr && conn != nullptr)
        mysql_close(conn);
}

void *xrealloc(void *ptr, size_t size)
{
    void *p = realloc(ptr, size);

    if (p == nullptr)
        report(1, "alloc(%d)", (int)size);
    return p;
}

char *db_escape(MYSQL *conn, const char *text)
{
    if (text == nullptr)
        return nullptr;
    size_t len = strlen(text);
    char *escaped = static_cast<char *>(xrealloc(nullptr, len * 2 + 1));
    mysql_real_escape_string(conn, escaped, text, len);
    return escaped;
}

int db_check_plain(const char *member, const char *value, int exit_status)
{
    if (value == nullptr || strpbrk(value, "\\\"'") == nullptr)
        return 1;
    /* A quote or backslash would change the statement's meaning: the value
     * is refused before any database work and nothing is sent. */
    report_plain(exit_status, "%s(): refusing a value holding a quote or backslash: %s",
                 member, value);
    return 0;
}
