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
 * A member's query whose result was prefetched (db/pipeline) is answered
 * from there instead of being sent again.  dom_id_query, dom_limit_query
 * and domain_service_parameter_query write the exact texts of get_dom_id,
 * get_dom_Limit and get_DomainService_Parameter into buf (the values
 * already converted and checked), so that they can be prefetched.
 */
#ifndef REBOX_DB_GET_H
#define REBOX_DB_GET_H

#include <mysql.h>
#include <stddef.h>

int get_dom_status(const char *dom_id, unsigned *status, MYSQL *conn);
int get_client_id_by_domain(const char *dom_id, MYSQL *conn);
int get_next_id(const char *table, MYSQL *conn);
const char *get_dns_zone_id(const char *dom_id, MYSQL *conn);
/* get_dom_id_noerr, get_dom_id - the identifier of the domain whose name
 * in ASCII form (see mailconf/idn) is ascii */
const char *get_dom_id_noerr(const char *ascii, MYSQL *conn, int quiet);
const char *get_dom_id(const char *ascii, MYSQL *conn);
/* get_refusals_fatal - while on, a query the server refuses ends the
 * process with the member's message instead of failing the call, so that
 * null (or a false flag) never stands for a refusal */
void get_refusals_fatal(int on);
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
const char *dom_id_query(const char *ascii, char *buf, size_t size);
const char *dom_limit_query(const char *dom_id, const char *limit_name, char *buf, size_t size);
const char *domain_service_parameter_query(const char *dom_id, const char *type,
                                           const char *parameter, char *buf, size_t size);

#endif
