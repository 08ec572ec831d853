/* nonexist_policy - what a domain does with mail for unknown mailboxes.
 *
 * Reject: the domain's ASCII name in control/rejectnonexist.  Bounce or
 * catch-all: the one line of the domain's .qmail-default ("|bouncesaying
 * text" or "&address").  restore_nonexist_policy() applies the choice kept
 * in the domain's mail-service parameters, reading each of them once;
 * restore_nonexist_policy_checked() does the same unless it meets a value
 * the writers refuse, and then writes nothing and says why;
 * nonexist_policy_prefetch() queues on the query pipeline the questions
 * the latter asks of every domain, in the order it asks them.
 */
#ifndef REBOX_MAILCONF_NONEXIST_POLICY_H
#define REBOX_MAILCONF_NONEXIST_POLICY_H

#include "mailconf/qmail_common.h"

#include <mysql.h>

/* The bounce text used when the domain has none of its own. */
#define DEFAULT_BOUNCE_TEXT "This address no longer accepts mail."

int restore_nonexist_policy(const char *domain, const char *domain_id, MYSQL *conn);
/* restore_nonexist_policy_checked - the policy of domain d; null, or why
 * it was not applied; *rejects: a reject policy was */
const char *restore_nonexist_policy_checked(const MailDomain *d, MYSQL *conn, int *rejects);
void nonexist_policy_prefetch(const char *domain_id);
int set_reject(const char *domain, int on);
int add_reject(const char *domain);
int remove_reject(const char *domain);
int add_bounce(const char *domain, const char *line);
int set_bounce_message(const char *domain, const char *text);
int set_catch_all(const char *domain, const char *address);

#endif
