/* quota - mailbox and domain quota files.
 *
 * "@mbox.quota" in a mailbox home (or, for the whole domain, in the domain
 * directory) holds the limit in kilobytes and a newline, owned by popuser
 * with mode 0640.  Both operations hold the file's named lock.
 */
#pragma once

#include "mailconf/qmail_common.h"

/* write_mbox_quota, remove_mbox_quota - the quota file of mailbox
 * mail_name of domain d, or of the domain when mail_name is null */
int write_mbox_quota(const MailDomain *d, const char *mail_name, long kilobytes);
int remove_mbox_quota(const MailDomain *d, const char *mail_name);
