/* panel_rows - the rows the rebuild pass reads from the panel database.
 *
 * The texts of the pass's queries, and the decoding of their rows into
 * named fields in one place: MailDomainRow for a row of DOMAINS_QUERY,
 * MailboxRow for a row of a domain's mailbox list; the other queries
 * answer one column (an alias, a forward address).  Names, addresses and
 * hashes are the panel customers' own input, and one bad row must not stop
 * the restore of everybody else: a decoder also tells the rule the row
 * breaks (a NUL byte inside a value, or a rule of mailconf/value_check),
 * and skip_row() warns that the row is left out, naming its domain, its
 * mailbox or alias or address, and the rule.  The run goes on and its exit
 * status does not change.  The writers would end the process on such a
 * value; the pass alone chooses to go on without the row.
 */
#pragma once

#include "mailconf/qmail_common.h"

#include <mysql.h>

#include <vector>

#define DOMAINS_QUERY                                                                              \
    "SELECT d.id, d.name, d.status, s.status FROM domains d LEFT JOIN DomainServices s "          \
    "ON d.id=s.dom_id WHERE s.type='mail'"

/* The size of a query buffer. */
#define PANEL_QUERY_SIZE 4096

/* MailboxRow - a mailbox of a domain */
struct MailboxRow {
    const char *id;
    const char *mail_name;
    int postbox;                 /* local delivery on */
    const char *password;        /* as stored, null for none */
    const char *plain;           /* the plain password the postbox is hashed from
                                  * ("" for none), null with no postbox or a
                                  * stored crypt hash */
    int redirect;                /* a forward to redir_addr (on, non-empty) */
    const char *redir_addr;
    const char *redir_addr_rule; /* the rule redir_addr breaks, or null */
    int mail_group;
    int autoresponder;
    const char *mbox_quota;      /* bytes, decimal; negative: no limit */
    const char *rule;            /* the rule the row breaks (it is then skipped), or null */
};

/* domain_row, mailbox_row - decode row into fields; the rule the row
 * breaks (the row is then skipped), or null */
const char *domain_row(MYSQL_RES *res, MYSQL_ROW row, MailDomainRow *fields);
const char *mailbox_row(MYSQL_RES *res, MYSQL_ROW row, MailboxRow *fields);

/* id_before - identifier a comes before identifier b (decimal texts): the
 * shorter first, then the smaller.  The passes walk rows in this order
 * whatever order the server hands them over in, so that a rerun on an
 * unchanged panel writes the same lines in the same order. */
bool id_before(const char *a, const char *b);

/* mailbox_rows - the rows of a domain's mailbox list decoded, in the order
 * of their identifiers */
void mailbox_rows(MYSQL_RES *res, std::vector<MailboxRow> *rows);


/* value_rule - the rule the one column of a row breaks under check (a
 * value_check function), or null */
const char *value_rule(MYSQL_RES *res, MYSQL_ROW row, const char *(*check)(const char *));

/* skip_row - warn that a row is left out: what it is (kind, and its value
 * if it has one; no kind for the domain itself), the mailbox it belongs to
 * if any, its domain and the rule it breaks */
void skip_row(const char *kind, const char *value, const char *mailbox, const char *domain,
              const char *why);

/* The queries of a domain's mail aliases and mailbox list, and of a
 * mailbox's group members and aliases, written into buf
 * (PANEL_QUERY_SIZE bytes) */
const char *domain_aliases_query(const char *domain_id, char *buf);
const char *mailboxes_query(const char *domain_id, char *buf);
const char *mailgroup_query(const char *mailbox_id, char *buf);
const char *mail_aliases_query(const char *mailbox_id, char *buf);
