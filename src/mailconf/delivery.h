/* delivery - a mailbox's delivery instructions and alias records.
 *
 * Lines appended to the mailbox's .qmail (after add_mailbox reset it to
 * "| true"): "./Maildir/" for the postbox (with its POP3 password line),
 * "&address" for each forward, "|autoresponder"; and, in users/assign, an
 * exact-match record for each alias name of the mailbox.
 */
#ifndef REBOX_MAILCONF_DELIVERY_H
#define REBOX_MAILCONF_DELIVERY_H

int add_postbox(const char *mail_name, const char *domain, const char *password,
                int disabled, int full_names_required);
int remove_postbox(const char *mail_name, const char *domain);
int add_forward_address(const char *mail_name, const char *domain, const char *address);
int add_autoresponder(const char *mail_name, const char *domain);
int add_mail_alias(const char *mail_name, const char *domain, const char *alias);

#endif
