/* get - read-only questions to the panel database, one query each.
 *
 * Members that take a connection use it and leave it open; given null they
 * open a session of their own and close it before returning
 * (get_dom_status and get_client_id_by_domain require one,
 * get_exist_case_dom_name always opens its own).  Values are put between
 * quotes unescaped, so a value holding a backslash or a quote is refused
 * with a message and no query is sent.
 *
 * Text answers point into a 4096-byte static buffer of the member (at most
 * 4095 bytes of the value), valid until the member's next call: null means
 * failure, "" no row or a NULL value (get_client_email: null also when
 * neither the client nor the panel has an e-mail).  get_param_simple, get_misc_param and
 * get_dom_htype answer in the buffer of get_query_value.
 *
 * get_answer() is the family's question without a message: a caller that
 * must not go on without an answer (the rebuild and spam passes, where a
 * refusal ends the run) asks through it and reports a refusal itself with
 * the member's own text, one of the GET_*_REFUSED formats below.
 *
 * A member's query whose result was prefetched (db/pipeline) is answered
 * from there instead of being sent again.  dom_id_query, dom_limit_query
 * and domain_service_parameter_query write the exact texts of get_dom_id,
 * get_dom_Limit and get_DomainService_Parameter into buf (the values
 * already converted and checked), so that they can be prefetched.
 */
#pragma once

#include <mysql.h>
#include <stddef.h>

int get_dom_status(const char *dom_id, unsigned *status, MYSQL *conn);
int get_client_id_by_domain(const char *dom_id, MYSQL *conn);
int get_next_id(const char *table, MYSQL *conn);
const char *get_dns_zone_id(const char *dom_id, MYSQL *conn);
/* get_dom_id_noerr, get_dom_id - the identifier of the domain called name
 * (converted to its ASCII form for the lookup; the messages name it as
 * given) */
const char *get_dom_id_noerr(const char *name, MYSQL *conn, int quiet);
const char *get_dom_id(const char *name, MYSQL *conn);
const char *get_exist_case_dom_name(const char *name);
int get_frontpage(const char *name, int ssl, MYSQL *conn);
int get_anon_ftp(const char *dom_id, MYSQL *conn);
int get_www_prefix(const char *dom_id, MYSQL *conn);
const char *get_dom_Limit(const char *dom_id, const char *limit_name, MYSQL *conn);
const char *get_DomainService_Parameter(const char *dom_id, const char *type,
                                        const char *parameter, MYSQL *conn);
const char *get_dom_Parameter(const char *dom_id, const char *parameter, MYSQL *conn);
const char *get_dom_param(const char *dom_id, const char *param, MYSQL *conn);
const char *get_ip_address(const char *dom_id, MYSQL *conn);
const char *get_query_value(const char *query, MYSQL *conn, int column);
const char *get_param_simple(const char *value, const char *table, const char *key_column,
                             const char *value_column, MYSQL *conn);
const char *get_misc_param(const char *name, MYSQL *conn);
const char *get_dom_htype(const char *dom_id, MYSQL *conn);
const char *get_client_email(const char *dom_id, MYSQL *conn);
/* GetAnswer - what one question came to */
enum GetAnswer {
    GET_FOUND,   /* a value, copied into the caller's buffer */
    GET_CUT,     /* a value longer than the buffer: its first 4095 bytes copied */
    GET_NUL,     /* a value holding a NUL byte (whatever its length): what comes
                    before it copied */
    GET_NO_ROW,  /* no row, or a NULL value: the buffer holds "" */
    GET_REFUSED, /* the server refused the query: mysql_error(conn) says why */
};

/* The members' messages for a refused query (and get_client_email's for a
 * panel without an administrator's e-mail). */
#define GET_DOM_LIMIT_REFUSED "Unable to query domain limit %s: %s\n"
#define GET_PARAMETER_REFUSED "Unable to query domain parameter %s: %s\n"
#define GET_QUERY_REFUSED "Unable to query parameter by query %s: %s\n"
#define GET_CLIENT_EMAIL_REFUSED "Unable to define clients email: %s\n"
#define GET_NO_ADMIN_EMAIL "Unable to define admin email\n"

/* starts_true - a panel flag that is on: the stored value begins with
 * "true" */
int starts_true(const char *value);
/* get_answer - column of query's first row over conn (or its prefetched
 * result) into buf (4096 bytes, at most 4095 of the value); reports
 * nothing */
GetAnswer get_answer(MYSQL *conn, const char *query, unsigned column, char *buf);
/* get_misc_setting - the panel-wide setting name into buf (4096 bytes, ""
 * for none) for a caller that cannot go on without it: a refused question
 * ends the process with get_misc_param's message */
const char *get_misc_setting(MYSQL *conn, const char *name, char *buf);
const char *client_email_query(const char *dom_id, char *buf, size_t size);
const char *misc_param_query(const char *name, char *buf, size_t size);
const char *dom_id_query(const char *ascii, char *buf, size_t size);
const char *dom_limit_query(const char *dom_id, const char *limit_name, char *buf, size_t size);
const char *domain_service_parameter_query(const char *dom_id, const char *type,
                                           const char *parameter, char *buf, size_t size);
