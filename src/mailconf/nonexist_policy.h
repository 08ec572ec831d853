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

/* restore_nonexist_policy - the policy of domain d, asked of d's
 * connection */
int restore_nonexist_policy(const MailDomain *d);
/* restore_nonexist_policy_checked - the same; null, or why it was not
 * applied; *rejects: a reject policy was */
const char *restore_nonexist_policy_checked(const MailDomain *d, int *rejects);
void nonexist_policy_prefetch(const char *domain_id);
/* set_reject, add_reject, remove_reject - the reject line of a domain or
 * alias name, its changes through fx */
int set_reject(const Effects *fx, const char *domain, int on);
int add_reject(const Effects *fx, const char *domain);
int remove_reject(const Effects *fx, const char *domain);
/* add_bounce, set_bounce_message, set_catch_all - the one line of the
 * .qmail-default of domain d */
int add_bounce(const MailDomain *d, const char *line);
int set_bounce_message(const MailDomain *d, const char *text);
int set_catch_all(const MailDomain *d, const char *address);

#endif
