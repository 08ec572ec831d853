/* domain - the qmail records of a mail domain.
 *
 * add_mail_domain() creates the domain's directory under the mail names
 * directory, its wildcard record in users/assign and (unless disabled) its
 * lines in control/rcpthosts and control/virtualdomains;
 * remove_mail_domain() takes all of that away again, with the records and
 * homes of the domain's mailboxes.
 */
#ifndef REBOX_MAILCONF_DOMAIN_H
#define REBOX_MAILCONF_DOMAIN_H

int add_mail_domain(const char *name, int disabled);
int add_enabled_mail_domain(const char *name);
int remove_mail_domain(const char *name);

#endif
