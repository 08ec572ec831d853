/* pop3 - a mailbox's line in qmail's users/poppasswd.
 *
 * One line a mailbox: login, password hash ("!" in front when the domain
 * is disabled), "popuser" and the home directory.  A mailbox's line is
 * found by the ending of its home path, whatever its login form.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* add_pop3_password - the line of mailbox mail_name of domain d */
int add_pop3_password(const MailDomain *d, const char *mail_name, const char *password, int disabled,
                      int full_names_required);
