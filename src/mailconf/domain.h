/* domain - the qmail records of a mail domain.
 *
 * add_mail_domain() creates the domain's directory under the mail names
 * directory, its wildcard record in users/assign and (unless disabled) its
 * lines in control/rcpthosts and control/virtualdomains;
 * remove_mail_domain() takes all of that away again, with the records and
 * homes of the domain's mailboxes.
 *
 * A failed step of add_mail_domain() takes back only what it added itself
 * (its records, a directory it made), never a directory that was there.
 * A domain directory that is root's link to a target that cannot be
 * opened safely is left as it is with one warning: the records are
 * written and add_mail_domain() answers 1.
 *
 * A directory add_mail_domain() makes stays root's, and nothing in it is
 * looked up before it is made (fs/path_at), until mail_domain_done() gives
 * it to popuser: the domain's files and homes are made in it first.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* add_mail_domain - domain d; 0, or 1 when its directory was skipped */
int add_mail_domain(const MailDomain *d, int disabled);
/* mail_domain_done - the directory add_mail_domain made, if it did, given
 * to popuser; a failure ends the process as a failed chown at its making */
void mail_domain_done(const MailDomain *d);
int add_enabled_mail_domain(const MailDomain *d);
int remove_mail_domain(const MailDomain *d);
