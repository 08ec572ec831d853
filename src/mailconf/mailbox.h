/* mailbox - provisioning of one mailbox.
 *
 * add_mailbox() creates the mailbox home below the domain directory, its
 * Maildir tree and attachments directory, its exact-match record in
 * users/assign and a fresh .qmail holding "| true"; remove_mailbox() takes
 * the record, the POP3 password line and the whole home away again.
 *
 * add_mailbox() never costs a mailbox its mail.  A step that fails takes
 * back only the directories this call made itself (empty ones), never a
 * home, Maildir or file that was there before, and then ends the process
 * with the step's message.  Where a link or another kind of object keeps
 * standing in the way of one of its directories (popuser racing the
 * rebuild), or root linked one, the mailbox's tree is left as it is with
 * one warning and add_mailbox() answers 1: its records are written, its
 * files on disk are not.
 *
 * A home add_mailbox() makes where nobody else could (in a domain
 * directory the run made) stays root's until mailbox_done(): its Maildir,
 * attachments directory, delivery and quota files are made in it first,
 * without a look for what cannot be there (fs/path_at), and what belongs
 * inside Maildir is made before Maildir is given away.  An existing home
 * is held open from add_mailbox() to mailbox_done(), and the mailbox's
 * files are reached through it.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* add_mailbox - mailbox mail_name of domain d; 0, or 1 when its tree was
 * skipped (warned) */
int add_mailbox(const MailDomain *d, const char *mail_name);
int remove_mailbox(const MailDomain *d, const char *mail_name);
/* mailbox_done - the home add_mailbox made and kept, if it did, given to
 * popuser (one that existed is let go); a failure ends the process with
 * the home's chown message */
void mailbox_done(const MailDomain *d, const char *mail_name);
