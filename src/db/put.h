/* put - store or delete single settings of the panel database.
 *
 * The writing counterpart of get: a misc setting, a dom_param row, a
 * Parameters row, a domain's status.  A given connection is used and left
 * open; given null, a function opens its own with panel_db_open and closes
 * it again (put_dom_status requires one).  Ids and names must be free of
 * backslash and quotes (refused with a message otherwise); values are
 * escaped.  Results: 0 success, -1 failure, always reported.
 */
#pragma once

#include <mysql.h>

int put_dom_status(const char *dom_id, unsigned status, MYSQL *conn);
int del_param(const char *name, MYSQL *conn);
int del_dom_param(const char *dom_id, const char *param, MYSQL *conn);
int put_param(const char *name, const char *value, MYSQL *conn);
int del_Parameter(const char *id, const char *parameter, const char *value, MYSQL *conn);
int put_Parameter(const char *id, const char *parameter, const char *value, MYSQL *conn);
int put_dom_param(const char *dom_id, const char *param, const char *value, MYSQL *conn);
