/* spam - the spam-filter settings pass.
 *
 * restore_spam_settings() re-applies the server-wide spam-filter record
 * (unless the run is limited to some domains) and the record of every
 * mailbox of the mail domains it is handed (the rows the rebuild pass
 * read, in the same order and under the same rules) by
 * running spamctl with command lines built from the panel database.  apply_spam_settings()
 * applies one record by its full mail name ("*@*" for the server-wide one);
 * the other two are its entry points for the server and for one mailbox.
 */
#pragma once

#include "fs/effect.h"
#include "mailconf/qmail_common.h"

#include <mysql.h>
#include <stddef.h>

/* Each runs spamctl through the run_util effect of fx. */
void restore_spam_settings(const Effects *fx, MYSQL *conn, const MailDomainRow *const *domains, size_t count,
                           int server_wide);
int apply_server_spam_settings(const Effects *fx, MYSQL *conn);
int apply_mailbox_spam_settings(const Effects *fx, const char *local_part, const char *domain, MYSQL *conn);
int apply_spam_settings(const Effects *fx, const char *name, MYSQL *conn);
