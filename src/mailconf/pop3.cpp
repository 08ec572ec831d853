/* pop3 - replace a mailbox's line in users/poppasswd (see pop3.h). */
#include "mailconf/pop3.h"

#include "fs/file_str.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <stdio.h>

int add_pop3_password(const MailDomain *d, const char *mail_name, const char *password, int disabled,
                      int full_names_required)
{
    char path[QMAIL_BUF_SIZE], ending[QMAIL_BUF_SIZE], record[QMAIL_BUF_SIZE];

    /* A mail name or hash that cannot stand in the record is refused with
     * the invalid-name message, before the old line goes. */
    if (!mail_name_valid(mail_name) || (password != nullptr && check_crypt_hash(password) != nullptr))
        value_refused("empty mailname or maildomain");

    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    snprintf(ending, sizeof(ending), "/%s/%s", d->ascii, mail_name);
    if (file_str(d->fx, path, ending, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0)
        report(0, "Unable to remove record from popasswd file\n");

    /* Without a password the mailbox has no POP3 login at all. */
    if (password != nullptr && *password != '\0') {
        char home[QMAIL_BUF_SIZE];
        snprintf(record, sizeof(record), "%s%s%s:%s%s:popuser:%s\n", mail_name,
                 full_names_required ? "@" : "", full_names_required ? d->ascii : "", disabled ? "!" : "",
                 password, mail_path(home, d->ascii, mail_name, nullptr));
        if (file_str(d->fx, path, record, FILE_STR_ADD, FILE_STR_AT_END) != 0)
            report(1, "Unable to add record to poppasswd file");
    }
    return 0;
}
