/* pop3 - a mailbox's line in qmail's users/poppasswd.
 *
 * One line a mailbox: login, password hash ("!" in front when the domain
 * is disabled), "popuser" and the home directory.  A mailbox's line is
 * found by the ending of its home path, whatever its login form.
 */
#ifndef REBOX_MAILCONF_POP3_H
#define REBOX_MAILCONF_POP3_H

int add_pop3_password(const char *mail_name, const char *domain, const char *password,
                      int disabled, int full_names_required);

#endif
