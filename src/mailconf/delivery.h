/* delivery - a mailbox's delivery instructions and alias records.
 *
 * Lines appended to the mailbox's .qmail (after add_mailbox reset it to
 * "| true"): "./Maildir/" for the postbox (with its POP3 password line),
 * "&address" for each forward, "|autoresponder"; and, in users/assign, an
 * exact-match record for each alias name of the mailbox.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* The writers of mailbox mail_name of domain d. */
int add_postbox(const MailDomain *d, const char *mail_name, const char *password, int disabled,
                int full_names_required);
int remove_postbox(const MailDomain *d, const char *mail_name);
int add_forward_address(const MailDomain *d, const char *mail_name, const char *address);
int add_autoresponder(const MailDomain *d, const char *mail_name);
int add_mail_alias(const MailDomain *d, const char *mail_name, const char *alias);
