/* mailbox - provisioning of one mailbox.
 *
 * add_mailbox() creates the mailbox home below the domain directory, its
 * Maildir tree and attachments directory, its exact-match record in
 * users/assign and a fresh .qmail holding "| true"; remove_mailbox() takes
 * the record, the POP3 password line and the whole home away again.
 */
#ifndef REBOX_MAILCONF_MAILBOX_H
#define REBOX_MAILCONF_MAILBOX_H

int add_mailbox(const char *mail_name, const char *domain);
int remove_mailbox(const char *mail_name, const char *domain);

#endif
