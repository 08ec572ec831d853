/* nonexist_policy - what a domain does with mail for unknown mailboxes.
 *
 * Reject: the domain's ASCII name in control/rejectnonexist.  Bounce or
 * catch-all: the one line of the domain's .qmail-default ("|bouncesaying
 * text" or "&address").  restore_nonexist_policy() applies the choice the
 * caller read from the domain's mail-service parameters (NonexistPolicy);
 * restore_nonexist_policy_checked() does the same unless it meets a value
 * the writers refuse, and then writes nothing and says why.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* The bounce text used when the domain has none of its own. */
#define DEFAULT_BOUNCE_TEXT "This address no longer accepts mail."

/* NonexistPolicy - a domain's policy as its mail-service parameters hold
 * it */
struct NonexistPolicy {
    char choice[QMAIL_BUF_SIZE]; /* nonexist_mail: "reject", "catch", "bounce"; "" none */
    char value[QMAIL_BUF_SIZE];  /* catch: the address; bounce: the text ("" none) */
    int has_nul;                 /* a value it is made of holds a NUL byte */
};

/* restore_nonexist_policy - policy p written for domain d; a catch-all
 * address that cannot make a line ends the process */
int restore_nonexist_policy(const MailDomain *d, const NonexistPolicy *p);
/* restore_nonexist_policy_checked - the same; null, or why it was not
 * applied (nothing then written); *rejects: a reject policy was */
const char *restore_nonexist_policy_checked(const MailDomain *d, const NonexistPolicy *p, int *rejects);
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
