/* put - the update functions over misc, dom_param, Parameters and domains.
 *
 * Statements without a value are formatted into a 4096-byte buffer.  Those
 * carrying a value are allocated to their full length instead, so a long
 * value is stored whole rather than cut into a statement the server refuses.
 * put_Parameter and put_dom_param need a value: given null they report it
 * and send nothing (a NULL there would silently replace the stored value).
 */
#include "db/put.h"

#include "db/connect.h"
#include "runtime/report.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const size_t PUT_BUF_SIZE = 4096;
static const char CONNECT_MSG[] = "Unable to connect to mysql database\n";

/* send_statement - run statement on c; report fail_format with name and the error
 * text when refused; close c when it is the function's own */
static int send_statement(MYSQL *c, MYSQL *given, const char *statement, const char *fail_format,
                const char *name)
{
    int rc = 0;

    if (mysql_real_query(c, statement, strlen(statement)) != 0) {
        report_plain(0, fail_format, name, mysql_error(c));
        rc = -1;
    }
    db_close_own(c, given);
    return rc;
}

/* send_escaped - escape value on c, build the statement from format
 * (whose last placeholder takes the escaped value) and send it */
__attribute__((format(printf, 5, 0)))
static int send_escaped(MYSQL *c, MYSQL *given, const char *fail_format, const char *name,
                        const char *format, const char *first, const char *second,
                        const char *value)
{
    char *escaped = db_escape(c, value);
    char *statement = second != nullptr ? xasprintf(format, first, second, escaped)
                                        : xasprintf(format, first, escaped);

    free(escaped);
    int rc = send_statement(c, given, statement, fail_format, name);
    free(statement);
    return rc;
}

/* value_given - put_Parameter and put_dom_param refuse a null value */
static int value_given(const char *member, const char *name, const char *value)
{
    if (value != nullptr)
        return 1;
    report_plain(0, "%s(): no value given for parameter %s; nothing stored", member, name);
    return 0;
}

int put_dom_status(const char *dom_id, unsigned status, MYSQL *conn)
{
    static const char fail[] = "Unable to update status for domain with id=\"%s\": %s.";
    char statement[PUT_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0))
        return -1;
    if (conn == nullptr) {
        report_plain(0, fail, dom_id, "no database connection");
        return -1;
    }
    snprintf(statement, sizeof(statement), "update domains set status=%u where id=\"%s\"",
             status, dom_id);
    return send_statement(conn, conn, statement, fail, dom_id);
}

int del_param(const char *name, MYSQL *conn)
{
    char statement[PUT_BUF_SIZE];
    MYSQL *c;

    if (!db_check_plain(__func__, name, 0) || (c = db_open_own(conn, CONNECT_MSG)) == nullptr)
        return -1;
    snprintf(statement, sizeof(statement), "delete from misc where param='%s'", name);
    return send_statement(c, conn, statement, "Unable to delete parameter %s from misc: %s", name);
}

int del_dom_param(const char *dom_id, const char *param, MYSQL *conn)
{
    char statement[PUT_BUF_SIZE];
    MYSQL *c;

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, param, 0) ||
        (c = db_open_own(conn, CONNECT_MSG)) == nullptr)
        return -1;
    snprintf(statement, sizeof(statement), "delete from dom_param where dom_id='%s' and param='%s'",
             dom_id, param);
    return send_statement(c, conn, statement, "Unable to delete parameter %s from dom_param: %s", param);
}

int put_param(const char *name, const char *value, MYSQL *conn)
{
    static const char fail[] = "Unable to put parameter %s into misc: %s";
    MYSQL *c = db_open_own(conn, "Unable to connect to mysql database");

    if (c == nullptr)
        return -1;
    if (!db_check_plain(__func__, name, 0)) {
        db_close_own(c, conn);
        return -1;
    }
    if (value != nullptr)
        return send_escaped(c, conn, fail, name, "replace into misc (param, val) values('%s', '%s')",
                            name, nullptr, value);
    char *statement = xasprintf("replace into misc (param) values('%s')", name);
    int rc = send_statement(c, conn, statement, fail, name);
    free(statement);
    return rc;
}

int del_Parameter(const char *id, const char *parameter, const char *value, MYSQL *conn)
{
    static const char fail[] = "Unable to delete parameter %s from Parameters: %s";
    char statement[PUT_BUF_SIZE];
    MYSQL *c;

    if (!db_check_plain(__func__, id, 0) || !db_check_plain(__func__, parameter, 0) ||
        (c = db_open_own(conn, CONNECT_MSG)) == nullptr)
        return -1;
    if (value != nullptr)
        return send_escaped(c, conn, fail, parameter,
                            "delete from Parameters where id='%s' and parameter='%s' and value='%s'",
                            id, parameter, value);
    snprintf(statement, sizeof(statement), "delete from Parameters where id='%s' and parameter='%s'",
             id, parameter);
    return send_statement(c, conn, statement, fail, parameter);
}

int put_Parameter(const char *id, const char *parameter, const char *value, MYSQL *conn)
{
    MYSQL *c;

    if (!db_check_plain(__func__, id, 0) || !db_check_plain(__func__, parameter, 0) ||
        !value_given(__func__, parameter, value) || (c = db_open_own(conn, CONNECT_MSG)) == nullptr)
        return -1;
    return send_escaped(c, conn, "Unable to put parameter %s into Parameters: %s", parameter,
                        "replace into Parameters (id, parameter, value) values('%s', '%s', '%s')",
                        id, parameter, value);
}

int put_dom_param(const char *dom_id, const char *param, const char *value, MYSQL *conn)
{
    MYSQL *c;

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, param, 0) ||
        !value_given(__func__, param, value) || (c = db_open_own(conn, CONNECT_MSG)) == nullptr)
        return -1;
    return send_escaped(c, conn, "Unable to put parameter %s into dom_param: %s", param,
                        "replace into dom_param (dom_id, param, val) values('%s', '%s', '%s')",
                        dom_id, param, value);
}
