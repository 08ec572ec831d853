/* domain_facts - everything the rebuild pass asks the panel about a
 * domain, read before the first of its records is written.
 *
 * read_mail_domains() reads the domains with mail service, each row
 * decoded (MailDomainRow) with the rule it breaks, in the order of their
 * identifiers.  domain_facts() asks the questions of one domain in one
 * fixed list (its quota limit, its aliases, its mailbox list, whether a
 * policy parameter holds a NUL byte, its unknown-recipient policy, then
 * what that policy needs: the catch-all address with its fallbacks, or the
 * bounce text) and fills a DomainFacts; domain_facts_prefetch() queues the
 * same list on the query pipeline, in the same order, so the two cannot
 * drift apart.  domain_lists() and domain_lists_prefetch() do the same
 * for the group members and aliases of each of its mailboxes, so that the
 * pass has every answer about a domain before it writes the domain's first
 * record.  Every question the server
 * refuses ends the process with the question's own message: the pass must
 * never read a refusal as "no value".
 */
#pragma once

#include "mailconf/nonexist_policy.h"
#include "restore/panel_rows.h"

#include <mysql.h>

#include <vector>

/* MailDomains - the domains with mail service; res owns the texts */
struct MailDomains {
    MYSQL_RES *res;
    std::vector<MailDomainRow> rows;
};

/* MailboxLists - a mailbox's group members (null unless it is a mail
 * group) and aliases (null for a mailbox that is skipped), one column each */
struct MailboxLists {
    MYSQL_RES *group;
    MYSQL_RES *aliases;
};

/* DomainFacts - one domain as the panel has it (nothing of a domain row
 * that is skipped) */
struct DomainFacts {
    char limit[PANEL_QUERY_SIZE]; /* the mbox_quota limit, "" for none */
    NonexistPolicy policy;
    MYSQL_RES *aliases;   /* one column: a domain alias name */
    MYSQL_RES *mailboxes; /* owns the texts of boxes */
    std::vector<MailboxRow> boxes; /* the mailboxes, in the order of their identifiers */
    std::vector<MailboxLists> lists; /* each box's lists, once domain_lists() read them */
};

void read_mail_domains(MYSQL *conn, MailDomains *list);
void free_mail_domains(MailDomains *list);

/* domain_facts - the facts of the domain row d, asked over conn */
void domain_facts(MYSQL *conn, const MailDomainRow *d, DomainFacts *facts);
void domain_facts_free(DomainFacts *facts);
void domain_facts_prefetch(const MailDomainRow *d);

/* domain_lists - the lists of every mailbox of facts, asked over conn */
void domain_lists(MYSQL *conn, DomainFacts *facts);
void domain_lists_prefetch(const DomainFacts *facts);
