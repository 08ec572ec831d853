/* domain_alias - the qmail records of a domain alias.
 *
 * An alias is a second name of a hosted domain: its line in
 * control/rcpthosts and a line in control/virtualdomains that maps it to
 * the main domain's prefix (the main domain's database identifier).
 */
#pragma once

#include "mailconf/qmail_common.h"

/* add_domain_alias - alias of domain d */
int add_domain_alias(const MailDomain *d, const char *alias);
int remove_domain_alias(const MailDomain *d, const char *alias);
int rename_domain_alias(const MailDomain *d, const char *old_alias, const char *new_alias);
