/* get - the query family (see get.h).
 *
 * A value holding a backslash or a quote is the caller's fault: it is
 * reported and fails the call as a refused query does.  Only get_dom_id
 * without the quiet flag ends the process on such a value, since its
 * callers rely on getting an id whenever it returns.
 */
#include "db/get.h"

#include "db/connect.h"
#include "db/pipeline.h"
#include "mailconf/idn.h"
#include "runtime/report.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const size_t GET_BUF_SIZE = 4096;
static const char CONNECT_MSG[] = "Unable to connect to the mysql database\n";

static char query_value_buf[GET_BUF_SIZE];

GetAnswer get_answer(MYSQL *conn, const char *query, unsigned column, char *buf)
{
    MYSQL_RES *res;
    MYSQL_ROW row;
    GetAnswer answer = GET_NO_ROW;

    if (pipeline_ask(conn, query, &res) != 0)
        return GET_REFUSED;
    buf[0] = '\0';
    if (res == nullptr)
        return GET_NO_ROW;
    row = mysql_fetch_row(res);
    if (row != nullptr && column < mysql_num_fields(res) && row[column] != nullptr) {
        size_t len = mysql_fetch_lengths(res)[column];
        const char *nul = static_cast<const char *>(memchr(row[column], '\0', len));
        answer = GET_FOUND;
        if (nul != nullptr) {
            len = static_cast<size_t>(nul - row[column]);
            answer = GET_NUL;
        }
        if (len > GET_BUF_SIZE - 1) {
            len = GET_BUF_SIZE - 1;
            if (answer == GET_FOUND)
                answer = GET_CUT;
        }
        memcpy(buf, row[column], len);
        buf[len] = '\0';
    }
    mysql_free_result(res);
    return answer;
}

/* ask_text - the family's pattern once the values are checked: open a
 * session if none is given, run query and answer in buf; on a refused query
 * report fail_format (with fail_name, when given, before the error text) and
 * answer null */
static const char *ask_text(const char *query, char *buf, MYSQL *conn, unsigned column,
                            const char *connect_msg, const char *fail_format, const char *fail_name)
{
    MYSQL *c = db_open_own(conn, connect_msg);

    if (c == nullptr)
        return nullptr;
    if (get_answer(c, query, column, buf) == GET_REFUSED) {
        if (fail_name != nullptr)
            report_plain(0, fail_format, fail_name, mysql_error(c));
        else
            report_plain(0, fail_format, mysql_error(c));
        db_close_own(c, conn);
        return nullptr;
    }
    db_close_own(c, conn);
    return buf;
}

int starts_true(const char *value)
{
    return value != nullptr && strncmp(value, "true", 4) == 0;
}

int get_dom_status(const char *dom_id, unsigned *status, MYSQL *conn)
{
    static const char fail[] = "Unable to get status for domain with id=\"%s\": %s";
    char query[GET_BUF_SIZE];
    MYSQL_RES *res;
    MYSQL_ROW row;
    int parsed;

    if (!db_check_plain(__func__, dom_id, 0))
        return -1;
    if (conn == nullptr) {
        report_plain(0, fail, dom_id, "no database connection");
        return -1;
    }
    snprintf(query, sizeof(query), "select status from domains where id=\"%s\"", dom_id);
    if (mysql_real_query(conn, query, strlen(query)) != 0) {
        report_plain(0, fail, dom_id, mysql_error(conn));
        return -1;
    }
    res = mysql_store_result(conn);
    row = res != nullptr ? mysql_fetch_row(res) : nullptr;
    if (row == nullptr) {
        if (res != nullptr)
            mysql_free_result(res);
        report_plain(0, "Unable to get status for domain with id=\"%s\": such domain is not exist.", dom_id);
        return -2;
    }
    parsed = row[0] != nullptr && sscanf(row[0], "%u", status) == 1;
    mysql_free_result(res);
    if (!parsed) {
        report_plain(0, "Unable to get status for domain with id=\"%s\": error translate status value "
                        "from char to unsigned int.", dom_id);
        return -3;
    }
    return 0;
}

int get_client_id_by_domain(const char *dom_id, MYSQL *conn)
{
    static const char fail[] = "Unable to define client's ID: %s\n";
    char buf[GET_BUF_SIZE];
    int id = 0;

    if (!db_check_plain(__func__, dom_id, 0))
        return 0;
    if (conn == nullptr) {
        report_plain(0, fail, "no database connection");
        return 0;
    }
    snprintf(buf, sizeof(buf), "select c.id from domains d, clients c \t\t\t\t\t\t\t\t\t"
             "where d.cl_id=c.id and d.id='%s'", dom_id);
    if (ask_text(buf, buf, conn, 0, CONNECT_MSG, fail, nullptr) == nullptr)
        return 0;
    if (sscanf(buf, "%d", &id) != 1)
        return 0;
    return id;
}

int get_next_id(const char *table, MYSQL *conn)
{
    char buf[GET_BUF_SIZE];
    int max_id;

    snprintf(buf, sizeof(buf), "SELECT max(id) FROM %s", table);
    if (ask_text(buf, buf, conn, 0, CONNECT_MSG, "Unable to define max id: %s", nullptr) == nullptr)
        return 0;
    /* An empty table has a NULL maximum: the first id is 1. */
    if (sscanf(buf, "%d", &max_id) != 1)
        return 1;
    return max_id + 1;
}

const char *get_dns_zone_id(const char *dom_id, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0))
        return nullptr;
    snprintf(buf, sizeof(buf), "select dns_zone_id from domains where id='%s'", dom_id);
    return ask_text(buf, buf, conn, 0, CONNECT_MSG, "Unable to query dns_zone_id: %s\n", nullptr);
}

const char *dom_id_query(const char *ascii, char *buf, size_t size)
{
    snprintf(buf, size, "select id from domains where name='%s'", ascii);
    return buf;
}

const char *dom_limit_query(const char *dom_id, const char *limit_name, char *buf, size_t size)
{
    snprintf(buf, size, "select l.value from domains d, Limits l \t\t\t\t "
             "where d.id='%s' and d.limits_id=l.id  and l.limit_name='%s'", dom_id, limit_name);
    return buf;
}

const char *domain_service_parameter_query(const char *dom_id, const char *type,
                                           const char *parameter, char *buf, size_t size)
{
    snprintf(buf, size, "select r.value from DomainServices s, Parameters r \t\t\t\t "
             "where s.dom_id='%s' and s.type='%s' and s.parameters_id=r.id  and r.parameter='%s'",
             dom_id, type, parameter);
    return buf;
}

const char *client_email_query(const char *dom_id, char *buf, size_t size)
{
    snprintf(buf, size, "select c.email from domains d, clients c \t\t\t\t\t\t\t\t\t"
             "where d.cl_id=c.id and d.id='%s'", dom_id);
    return buf;
}

const char *misc_param_query(const char *name, char *buf, size_t size)
{
    snprintf(buf, size, "select val from misc where param='%s'", name);
    return buf;
}

const char *get_misc_setting(MYSQL *conn, const char *name, char *buf)
{
    char query[GET_BUF_SIZE];

    misc_param_query(name, query, sizeof(query));
    if (get_answer(conn, query, 0, buf) == GET_REFUSED)
        report_plain(1, GET_QUERY_REFUSED, query, mysql_error(conn));
    return buf;
}

const char *get_dom_id_noerr(const char *name, MYSQL *conn, int quiet)
{
    static char buf[GET_BUF_SIZE];
    MYSQL *c, *given = conn;

    if (!db_check_plain(quiet ? "get_dom_id_noerr" : "get_dom_id", name, quiet ? 0 : 1))
        return nullptr;
    c = db_open_own(given, CONNECT_MSG);
    if (c == nullptr)
        return nullptr;
    char *ascii = idn_toascii(name);
    if (ascii == nullptr)
        report_plain(1, "idn_toascii() failed: %s", idn_error_text(idn_last_error));
    dom_id_query(ascii, buf, sizeof(buf));
    free(ascii);
    if (get_answer(c, buf, 0, buf) == GET_REFUSED)
        report_plain(1, "Unable to query domain ID: %s\n", mysql_error(c));
    db_close_own(c, given);
    if (buf[0] == '\0') {
        if (quiet)
            return nullptr;
        report_plain(1, "get_dom_id(): domains record not found in DB for '%s'\n", name);
    }
    return buf;
}

const char *get_dom_id(const char *name, MYSQL *conn)
{
    return get_dom_id_noerr(name, conn, 0);
}

const char *get_exist_case_dom_name(const char *name)
{
    static char buf[GET_BUF_SIZE];
    static char lower[GET_BUF_SIZE];
    MYSQL *conn;
    size_t i;

    if (!db_check_plain(__func__, name, 0))
        return nullptr;
    conn = panel_db_open();
    if (conn == nullptr)
        report_plain(1, "%s", CONNECT_MSG);
    snprintf(buf, sizeof(buf), "select name from domains where name='%s'", name);
    if (get_answer(conn, buf, 0, buf) == GET_REFUSED)
        report_plain(1, "Unable to query domain name: %s\n", mysql_error(conn));
    mysql_close(conn);
    /* Stored names are never empty: "" is no row or a NULL name. */
    if (buf[0] == '\0')
        return nullptr;
    for (i = 0; buf[i] != '\0'; i++)
        lower[i] = (char)tolower((unsigned char)buf[i]);
    lower[i] = '\0';
    return lower;
}

int get_frontpage(const char *name, int ssl, MYSQL *conn)
{
    char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, name, 0))
        return 0;
    snprintf(buf, sizeof(buf), "select h.%s from domains d, hosting h \t\t\t\t\t\t\t\t\t"
             "where d.name='%s' and h.dom_id=d.id", ssl ? "fp_ssl" : "fp", name);
    return starts_true(ask_text(buf, buf, conn, 0, CONNECT_MSG,
                                "Unable to query frontpage status: %s\n", nullptr));
}

int get_anon_ftp(const char *dom_id, MYSQL *conn)
{
    char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0))
        return 0;
    snprintf(buf, sizeof(buf), "select a.status from domains d, anon_ftp a \t\t\t\t\t\t\t\t\t"
             "where d.id='%s' and a.dom_id=d.id", dom_id);
    return starts_true(ask_text(buf, buf, conn, 0, CONNECT_MSG, "Unable to query anon_ftp: %s\n", nullptr));
}

/* has_rows - send query and tell whether it has rows: 1, 0, or -1 after
 * reporting fail_format when it is refused or gives no result set */
static int has_rows(MYSQL *conn, const char *query, const char *fail_format)
{
    MYSQL_RES *res;
    int found;

    if (mysql_real_query(conn, query, strlen(query)) != 0 ||
        (res = mysql_store_result(conn)) == nullptr) {
        report_plain(0, fail_format, mysql_error(conn));
        return -1;
    }
    found = mysql_fetch_row(res) != nullptr;
    mysql_free_result(res);
    return found;
}

int get_www_prefix(const char *dom_id, MYSQL *conn)
{
    char query[GET_BUF_SIZE];
    MYSQL *c;
    int found;

    if (!db_check_plain(__func__, dom_id, 0))
        return -1;
    c = db_open_own(conn, CONNECT_MSG);
    if (c == nullptr)
        return -1;
    snprintf(query, sizeof(query), "select * from domains d, dns_zone z, dns_recs r \t\t"
             "where d.id='%s' and d.dns_zone_id=z.id and r.dns_zone_id=z.id \t\t"
             "and ((r.type='A') or (r.type='CNAME')) \t\tand left(r.host,4)='www.'", dom_id);
    found = has_rows(c, query, "Unable to query www prefix: %s\n");
    if (found == 1) {
        /* A www record counts only when no subdomain takes the name. */
        snprintf(query, sizeof(query), "select * from subdomains \t\t\twhere dom_id='%s' and name='www'",
                 dom_id);
        found = has_rows(c, query, "Unable to query www subdomain: %s\n");
        if (found >= 0)
            found = !found;
    }
    db_close_own(c, conn);
    return found;
}

const char *get_dom_Limit(const char *dom_id, const char *limit_name, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, limit_name, 0))
        return nullptr;
    dom_limit_query(dom_id, limit_name, buf, sizeof(buf));
    return ask_text(buf, buf, conn, 0, CONNECT_MSG, GET_DOM_LIMIT_REFUSED, limit_name);
}

const char *get_DomainService_Parameter(const char *dom_id, const char *type,
                                        const char *parameter, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, type, 0) ||
        !db_check_plain(__func__, parameter, 0))
        return nullptr;
    domain_service_parameter_query(dom_id, type, parameter, buf, sizeof(buf));
    return ask_text(buf, buf, conn, 0, CONNECT_MSG, GET_PARAMETER_REFUSED, parameter);
}

const char *get_dom_Parameter(const char *dom_id, const char *parameter, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, parameter, 0))
        return nullptr;
    snprintf(buf, sizeof(buf), "select r.value from domains d, Parameters r \t\t"
             "where d.id='%s' and d.params_id=r.id and r.parameter='%s'", dom_id, parameter);
    return ask_text(buf, buf, conn, 0, CONNECT_MSG, GET_PARAMETER_REFUSED, parameter);
}

const char *get_dom_param(const char *dom_id, const char *param, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0) || !db_check_plain(__func__, param, 0))
        return nullptr;
    snprintf(buf, sizeof(buf), "select val from dom_param where dom_id='%s' and param='%s'",
             dom_id, param);
    return ask_text(buf, buf, conn, 0, "Unable to connect to mysql database\n",
                    GET_PARAMETER_REFUSED, param);
}

const char *get_ip_address(const char *dom_id, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];

    if (!db_check_plain(__func__, dom_id, 0))
        return nullptr;
    snprintf(buf, sizeof(buf), "select ipa.ip_address from domains d, hosting h, IP_Addresses ipa "
             "where d.id='%s' and d.id=h.dom_id and h.ip_address_id=ipa.id", dom_id);
    return ask_text(buf, buf, conn, 0, "get_ip_address: Unable to connect to the mysql database",
                    "Unable to query IP address: %s\n", nullptr);
}

const char *get_query_value(const char *query, MYSQL *conn, int column)
{
    /* The query is sent as given, whatever its length; only the answer
     * goes into the shared buffer. */
    if (column < 0)
        return nullptr;
    return ask_text(query, query_value_buf, conn, (unsigned)column, CONNECT_MSG,
                    GET_QUERY_REFUSED, query);
}

const char *get_param_simple(const char *value, const char *table, const char *key_column,
                             const char *value_column, MYSQL *conn)
{
    char query[GET_BUF_SIZE];

    /* The table and column names are checked as well: they go into the
     * statement as unescaped as the value. */
    if (!db_check_plain(__func__, value, 0) || !db_check_plain(__func__, table, 0) ||
        !db_check_plain(__func__, key_column, 0) || !db_check_plain(__func__, value_column, 0))
        return nullptr;
    snprintf(query, sizeof(query), "select %s from %s where %s='%s'",
             value_column, table, key_column, value);
    return get_query_value(query, conn, 0);
}

const char *get_misc_param(const char *name, MYSQL *conn)
{
    return get_param_simple(name, "misc", "param", "val", conn);
}

const char *get_dom_htype(const char *dom_id, MYSQL *conn)
{
    return get_param_simple(dom_id, "domains", "id", "htype", conn);
}

const char *get_client_email(const char *dom_id, MYSQL *conn)
{
    static char buf[GET_BUF_SIZE];
    const char *admin_email;
    MYSQL *c;

    if (!db_check_plain(__func__, dom_id, 0))
        return nullptr;
    c = db_open_own(conn, CONNECT_MSG);
    if (c == nullptr)
        return nullptr;
    client_email_query(dom_id, buf, sizeof(buf));
    if (ask_text(buf, buf, c, 0, CONNECT_MSG, GET_CLIENT_EMAIL_REFUSED, nullptr) == nullptr) {
        db_close_own(c, conn);
        return nullptr;
    }
    if (buf[0] == '\0') {
        /* The client has no e-mail of its own: the panel administrator's. */
        admin_email = get_param_simple("admin_email", "misc", "param", "val", c);
        if (admin_email == nullptr || admin_email[0] == '\0') {
            report_plain(0, GET_NO_ADMIN_EMAIL);
            db_close_own(c, conn);
            return nullptr;
        }
        snprintf(buf, sizeof(buf), "%s", admin_email);
    }
    db_close_own(c, conn);
    return buf;
}
