/* delivery - postbox, forwards, autoresponder and alias records of a
 * mailbox (see delivery.h). */
#include "mailconf/delivery.h"

#include "fs/file_str.h"
#include "fs/path_ops.h"
#include "mailconf/idn.h"
#include "mailconf/pop3.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The invalid-name message of every writer here but add_mail_alias. */
static const char BAD_NAMES[] = "empty mailname or maildomain";

/* put_qmail_line - make line the last line of the delivery file, once;
 * the result of the append (0 or 1) */
static int put_qmail_line(const MailDomain *d, const char *path, const char *line)
{
    file_str(d->fx, path, line, FILE_STR_REMOVE, 1);
    return file_str(d->fx, path, line, FILE_STR_ADD, FILE_STR_AT_END);
}

/* give_to_popuser - owner popuser and mode 0600 for the delivery file */
static void give_to_popuser(const char *path, const MailDomain *d)
{
    FileStep step;

    if (file_owner_mode(d->fx, path, d->uid, d->gid, 0600, &step) != 0)
        report(1, "Unable to %s %s file: %s", step_word(step), path, strerror(errno));
}

int add_postbox(const MailDomain *d, const char *mail_name, const char *password, int disabled,
                int full_names_required)
{
    char path[QMAIL_BUF_SIZE];

    if (!mail_name_valid(mail_name))
        value_refused(BAD_NAMES);
    add_pop3_password(d, mail_name, password, disabled, full_names_required);
    mail_path(path, d->ascii, mail_name, DELIVERY_FILE);
    if (put_qmail_line(d, path, "./Maildir/") != 0) {
        int failure = errno; /* the undo below may change errno */
        remove_postbox(d, mail_name);
        report_errno(failure, 1, "Unable to add string to %s file.", path);
    }
    give_to_popuser(path, d);
    return 0;
}

int remove_postbox(const MailDomain *d, const char *mail_name)
{
    char path[QMAIL_BUF_SIZE], ending[QMAIL_BUF_SIZE];

    if (!mail_name_valid(mail_name))
        value_refused(BAD_NAMES);
    snprintf(ending, sizeof(ending), "/%s/%s", d->ascii, mail_name);

    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(d->fx, path, ending, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0)
        report(0, "Unable to remove a record from poppassword file\n");
    mail_path(path, d->ascii, mail_name, DELIVERY_FILE);
    if (file_str(d->fx, path, "./Maildir/", FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove string from %s file", path);
    return 0;
}

int add_forward_address(const MailDomain *d, const char *mail_name, const char *address)
{
    char path[QMAIL_BUF_SIZE], line[QMAIL_BUF_SIZE];

    /* A null address (no value in the database) is refused like a bad
     * name: there is nothing to forward to. */
    if (!mail_name_valid(mail_name) || address == nullptr)
        value_refused(BAD_NAMES);
    mail_path(path, d->ascii, mail_name, DELIVERY_FILE);

    char *converted = idn_email_toascii(address);
    if (converted == nullptr)
        report_plain(1, "idn_email_toascii() failed: %s", idn_error_text(idn_last_error));
    /* An address that would make the line a program, a file, a special
     * instruction or no address at all is refused with the message of an
     * address that does not convert, naming the rule it breaks. */
    if (const char *why = check_forward_address(converted)) {
        free(converted);
        report_plain(1, "idn_email_toascii() failed: %s", why);
    }
    snprintf(line, sizeof(line), "&%s", converted);
    free(converted);
    if (put_qmail_line(d, path, line) != 0)
        report(1, "Unable to add string to %s file.", path);
    give_to_popuser(path, d);
    return 0;
}

int add_autoresponder(const MailDomain *d, const char *mail_name)
{
    char path[QMAIL_BUF_SIZE];

    if (!mail_name_valid(mail_name))
        value_refused(BAD_NAMES);
    mail_path(path, d->ascii, mail_name, DELIVERY_FILE);
    if (put_qmail_line(d, path, "|autoresponder") != 0)
        report(1, "Unable to add string to %s file", path);
    return 0;
}

int add_mail_alias(const MailDomain *d, const char *mail_name, const char *alias)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE];

    if (!mail_name_valid(mail_name) || !mail_name_valid(alias))
        report_plain(1, "empty mailname, maildomainor or mailalias");
    char home[QMAIL_BUF_SIZE];
    snprintf(record, sizeof(record), "=%s-%s:popuser:%d:%d:%s:::", d->id, alias, static_cast<int>(d->uid),
             static_cast<int>(d->gid), mail_path(home, d->ascii, mail_name, nullptr));
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record from assign file");
    /* At the beginning: above the closing "." line. */
    if (file_str(d->fx, path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0)
        report(1, "Unable to add record to assign file");
    set_shared_mode(d->fx, path, 0600);
    return 0;
}
